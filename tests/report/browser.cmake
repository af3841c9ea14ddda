# The report in a real browser: Debian's chromium, driven by npm's playwright-core. Left out where
# there is no viewer to test.
include(${PROJECT_SOURCE_DIR}/cmake/npm.cmake)
find_program(TAVREL_CHROMIUM chromium DOC "chromium, for the tests of the report")
set(browser_packages ${CMAKE_CURRENT_BINARY_DIR}/browser)
set(missing "chromium was not found (Debian packages: see tests/report/packages.txt)")
if(TAVREL_CHROMIUM AND TAVREL_VIEWER)
  npm_install(${CMAKE_CURRENT_SOURCE_DIR}/report/browser ${browser_packages} missing)
endif()
if(NOT TAVREL_VIEWER)
  return()
elseif(missing AND TAVREL_VIEWER STREQUAL "AUTO")
  message(STATUS "The report is not tested in a browser: ${missing}")
  return()
elseif(missing)
  message(FATAL_ERROR "The report cannot be tested in a browser: ${missing}")
endif()

add_test(NAME report_in_browser
         COMMAND ${TAVREL_NODE} --test ${CMAKE_CURRENT_SOURCE_DIR}/report/browser/report.test.mjs)
set_tests_properties(report_in_browser PROPERTIES TIMEOUT 900 PROCESSORS 2)
set_property(TEST report_in_browser PROPERTY ENVIRONMENT
  BROWSER_PACKAGES=${browser_packages} CHROMIUM=${TAVREL_CHROMIUM}
  MAKE_COHORT=$<TARGET_FILE:make_cohort> NIFTI_PHANTOM=$<TARGET_FILE:nifti_phantom>
  TAVREL_BIDS=$<TARGET_FILE:tavrel-bids>)
