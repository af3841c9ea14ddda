# The report in a real browser: Debian's chromium, driven by the viewer's npm packages for development.
# Left out where there is no viewer to test.
find_program(TAVREL_CHROMIUM chromium DOC "chromium, for the tests of the report")
get_property(packages GLOBAL PROPERTY viewer_packages)
if(NOT packages OR NOT TAVREL_CHROMIUM)
  message(STATUS "The report is not tested in a browser: it has no viewer, or chromium was not found "
                 "(Debian packages: see tests/report/packages.txt)")
  return()
endif()
add_test(NAME report_in_browser
         COMMAND ${TAVREL_NODE} --test ${CMAKE_CURRENT_SOURCE_DIR}/report/report.test.mjs)
set_tests_properties(report_in_browser PROPERTIES TIMEOUT 900 PROCESSORS 2)
set_property(TEST report_in_browser PROPERTY ENVIRONMENT
  BROWSER_PACKAGES=${packages} CHROMIUM=${TAVREL_CHROMIUM}
  NIFTI_PHANTOM=$<TARGET_FILE:nifti_phantom> TAVREL_BIDS=$<TARGET_FILE:tavrel-bids>)
