# npm_install(SOURCE BUILT RESULT): installs the packages of SOURCE/package-lock.json in BUILT, once
# for each state of the lock file. RESULT is set to what went wrong, or "".
find_program(TAVREL_NODE NAMES node nodejs DOC "node, for the report's viewer")
find_program(TAVREL_NPM npm DOC "npm, for the report's viewer")

function(npm_install source built result)
  set(${result} "" PARENT_SCOPE)
  if(NOT TAVREL_NODE OR NOT TAVREL_NPM)
    set(${result} "node and npm were not found" PARENT_SCOPE)
    return()
  endif()
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source}/package-lock.json)
  file(SHA256 ${source}/package-lock.json locked)
  if(EXISTS ${built}/installed-${locked})
    return()
  endif()
  file(COPY ${source}/package.json ${source}/package-lock.json DESTINATION ${built})
  execute_process(
    COMMAND ${TAVREL_NPM} ci --ignore-scripts --no-audit --no-fund --prefer-offline
    WORKING_DIRECTORY ${built}
    TIMEOUT 600
    RESULT_VARIABLE status
    OUTPUT_VARIABLE output
    ERROR_VARIABLE output)
  if(status EQUAL 0)
    file(TOUCH ${built}/installed-${locked})
  else()
    set(${result} "npm ci failed\n${output}" PARENT_SCOPE)
  endif()
endfunction()
