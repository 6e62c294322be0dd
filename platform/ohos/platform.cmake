# The phone: both headers and both libraries come from its toolchain.
set(TQREADER_PLATFORM_SOURCES "")
set(TQREADER_PLATFORM_INCLUDES "")
set(TQREADER_BINDING_INCLUDES "")
set(TQREADER_PLATFORM_LIBRARIES hilog_ndk.z)
set(TQREADER_BINDING_LIBRARIES ace_napi.z)
