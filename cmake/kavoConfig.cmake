# What find_package(kavo) reads: the library's targets, kavo::kavo and kavo::kavo_static, and what they stand on.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
include(${CMAKE_CURRENT_LIST_DIR}/kavoTargets.cmake)
