# The phone's system for a CMake that has not heard of it: as CMake sees it, another Linux.
include(Platform/Linux)
