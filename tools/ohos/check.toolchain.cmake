# Stands in for the phone's ohos.toolchain.cmake in a check build: the same flags, and the compiler, the libraries and
# the headers from Debian's packages. tools/ohos/build unpacks those and passes:
#   OHOS_ARCH                arm64-v8a or x86_64
#   TQREADER_CHECK_COMPILER  19: build for the phone's target; 15: compile with the phone's compiler version, no linking
#   TQREADER_CHECK_ROOT      the unpacked packages of that processor
#   TQREADER_CHECK_PIECES    stub libraries, the calls that musl lacks, and include/ with Node-API's headers
#
# Debian's libc++ is made for glibc. What the library takes of it runs on musl with what glibc_calls.c adds; streams,
# locales and std::future would not.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES OHOS_ARCH TQREADER_CHECK_COMPILER TQREADER_CHECK_ROOT
  TQREADER_CHECK_PIECES)

if(OHOS_ARCH STREQUAL "arm64-v8a")
  set(processor aarch64)
elseif(OHOS_ARCH STREQUAL "x86_64")
  set(processor x86_64)
else()
  message(FATAL_ERROR "OHOS_ARCH is '${OHOS_ARCH}': arm64-v8a or x86_64")
endif()
set(OHOS TRUE)
set(CMAKE_SYSTEM_NAME OHOS)
set(CMAKE_SYSTEM_VERSION 1)
set(CMAKE_SYSTEM_PROCESSOR ${processor})
list(APPEND CMAKE_MODULE_PATH ${CMAKE_CURRENT_LIST_DIR}/modules)

set(CMAKE_C_COMPILER clang-${TQREADER_CHECK_COMPILER})
set(CMAKE_CXX_COMPILER clang++-${TQREADER_CHECK_COMPILER})
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)  # programs of this target are not linked the usual way
set(musl ${TQREADER_CHECK_ROOT}/usr/lib/${processor}-linux-musl)
set(flags "-fdata-sections -ffunction-sections -funwind-tables -fstack-protector-strong -no-canonical-prefixes -fno-addrsig")
string(APPEND flags " -Wformat -Werror=format-security -D__MUSL__ -nostdlibinc")
set(headers "-isystem \"${TQREADER_CHECK_ROOT}/usr/include/${processor}-linux-musl\"")
string(APPEND headers " -isystem \"${CMAKE_CURRENT_LIST_DIR}/include\" -isystem \"${TQREADER_CHECK_PIECES}/include\"")

if(TQREADER_CHECK_COMPILER EQUAL 15)
  # This version does not know the phone's name yet, and has to be told of the phone's thread-local storage.
  set(target ${processor}-linux-musl)
  string(APPEND flags " -femulated-tls")
  set(libcxx /usr/lib/llvm-15/include/c++/v1)
  set(CMAKE_CXX_CREATE_SHARED_LIBRARY "<CMAKE_COMMAND> -E true")
else()
  set(target ${processor}-linux-ohos)
  string(APPEND flags " -fstack-size-section")  # what tools/ohos/stack.mjs reads
  set(llvm ${TQREADER_CHECK_ROOT}/usr/lib/llvm-19)
  set(libcxx ${llvm}/include/c++/v1)
  # Every library by name, and the C library's start-up files around all of it.
  string(JOIN " " CMAKE_SHARED_LINKER_FLAGS_INIT -nostdlib -fuse-ld=lld-19 "\"${musl}/crti.o\""
    "-L\"${TQREADER_CHECK_PIECES}\"" "-L\"${musl}\"" "-L\"${TQREADER_CHECK_ROOT}/lib/${processor}-linux-musl\""
    -Wl,--build-id=sha1 -Wl,--warn-shared-textrel -Wl,--fatal-warnings -Wl,--no-undefined -Wl,-z,defs
    -Wl,-z,noexecstack -Wl,-Map=tqreader.link)
  string(JOIN " " CMAKE_CXX_STANDARD_LIBRARIES "-L\"${llvm}/lib\"" "-L\"${llvm}/lib/clang/19/lib/linux\"" -l:libc++.a
    -l:libc++abi.a -l:libunwind.a -lglibc_calls -l:libclang_rt.builtins-${processor}.a -l:libc.so "\"${musl}/crtn.o\"")
endif()
set(CMAKE_C_COMPILER_TARGET ${target})
set(CMAKE_CXX_COMPILER_TARGET ${target})
set(CMAKE_C_FLAGS_INIT "${flags} ${headers}")
set(CMAKE_CXX_FLAGS_INIT "${flags} -nostdinc++ -isystem \"${libcxx}\" ${headers} -D_LIBCPP_HAS_MUSL_LIBC")
