# Linux: Node-API's own header under the phone's name, and a log function that writes to standard error.
include(FindNodeApi)
set(TQREADER_PLATFORM_SOURCES ${CMAKE_CURRENT_LIST_DIR}/hilog/hilog_host.cpp)
set(TQREADER_PLATFORM_INCLUDES ${CMAKE_CURRENT_LIST_DIR})
set(TQREADER_BINDING_INCLUDES ${TQREADER_NODE_API_INCLUDE})
find_package(Threads REQUIRED)
set(TQREADER_PLATFORM_LIBRARIES Threads::Threads)
set(TQREADER_BINDING_LIBRARIES "")
