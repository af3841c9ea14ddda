# Sets viewer to the file of the bundled 3-D viewer, made from npm packages at the versions of the lock
# file. Where node, npm or the registry cannot be reached, it is an empty file, and the report's pages
# have everything but the viewer.
include(${PROJECT_SOURCE_DIR}/cmake/npm.cmake)
set(TAVREL_VIEWER AUTO CACHE STRING "Put the 3-D viewer into the report's pages: AUTO, ON or OFF")

set(missing "TAVREL_VIEWER is off")
if(TAVREL_VIEWER)
  npm_install(${web} ${built} missing)
endif()
if(missing AND TAVREL_VIEWER STREQUAL "AUTO")
  message(STATUS "The report's pages go without their 3-D viewer: ${missing} "
                 "(Debian packages: see apps/report/packages.txt)")
elseif(missing AND TAVREL_VIEWER)
  message(FATAL_ERROR "The report's 3-D viewer cannot be built: ${missing}")
endif()
if(missing)
  set(viewer ${built}/none/viewer.gz)
  file(WRITE ${viewer} "")
  return()
endif()

set_property(GLOBAL PROPERTY viewer_packages ${built})
set(viewer ${built}/viewer.gz)
file(GLOB viewer_sources CONFIGURE_DEPENDS ${web}/*.js ${web}/*.mjs ${web}/*.txt)
add_custom_command(
  OUTPUT ${viewer} ${built}/viewer-licenses.txt
  COMMAND ${TAVREL_NODE} ${web}/build.mjs ${web} ${built}
  DEPENDS ${viewer_sources} ${web}/package-lock.json
  COMMENT "Bundling the report's viewer"
  VERBATIM)
install(FILES ${built}/viewer-licenses.txt DESTINATION ${CMAKE_INSTALL_DOCDIR})
