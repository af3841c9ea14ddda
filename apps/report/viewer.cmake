# Makes ${built}/viewer.gz: the bundled viewer, or an empty file without it.

# leave_out(REASON...): does without the viewer, or stops where it was asked for.
function(leave_out)
  list(JOIN ARGN "" reason)
  if(TAVREL_VIEWER STREQUAL "AUTO")
    message(STATUS "The report's pages go without their 3-D viewer: ${reason}")
  elseif(TAVREL_VIEWER)
    message(FATAL_ERROR "The report's 3-D viewer cannot be built: ${reason}")
  endif()
  file(WRITE ${built}/viewer.gz "")
endfunction()

if(NOT TAVREL_VIEWER)
  leave_out("TAVREL_VIEWER is off")
  return()
elseif(NOT TAVREL_NODE OR NOT TAVREL_NPM)
  leave_out("node and npm were not found (Debian packages: see apps/report/packages.txt)")
  return()
endif()

# The packages are installed once for each state of the lock file, in the build folder.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${web}/package-lock.json)
file(SHA256 ${web}/package-lock.json locked)
if(NOT EXISTS ${built}/installed-${locked})
  file(COPY ${web}/package.json ${web}/package-lock.json DESTINATION ${built})
  execute_process(
    COMMAND ${TAVREL_NPM} ci --ignore-scripts --no-audit --no-fund
    WORKING_DIRECTORY ${built}
    RESULT_VARIABLE status
    OUTPUT_VARIABLE output
    ERROR_VARIABLE output)
  if(NOT status EQUAL 0)
    leave_out("npm ci failed\n${output}")
    return()
  endif()
  file(TOUCH ${built}/installed-${locked})
endif()

set(viewer_sources ${web}/viewer.js ${web}/mask.js ${web}/absent.js ${web}/build.mjs)
add_custom_command(
  OUTPUT ${built}/viewer.gz
  COMMAND ${TAVREL_NODE} ${web}/build.mjs ${web} ${built}
  DEPENDS ${viewer_sources} ${web}/package-lock.json
  COMMENT "Bundling the report's viewer"
  VERBATIM)
install(FILES ${built}/viewer-licenses.txt DESTINATION ${CMAKE_INSTALL_DOCDIR})
