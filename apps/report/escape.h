// Text on its way into pages: names may hold anything.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <string_view>

namespace tavrel::report {

/// Text for an element or a quoted attribute of HTML. Control characters and bytes that are not
/// UTF-8 become \x and two digits.
std::string html(std::string_view text);

/// JSON for the inside of a <script> element, in ASCII.
std::string scriptJson(const nlohmann::ordered_json& value);

/// A relative path as a URL: bytes other than letters, digits, `-._~` and `/` as %XX.
std::string url(const std::filesystem::path& path);

std::string base64(std::span<const std::byte> bytes);

/// A template with its {{names}} replaced. Values are not looked through again.
/// @throws std::out_of_range for a name without a value
std::string filled(std::string_view text,
                   const std::function<std::string(const std::string& name)>& value);

}  // namespace tavrel::report
