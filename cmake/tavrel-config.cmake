# find_package(tavrel) gives the target tavrel::tavrel: the stages and their headers.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
include(${CMAKE_CURRENT_LIST_DIR}/tavrel-targets.cmake)
