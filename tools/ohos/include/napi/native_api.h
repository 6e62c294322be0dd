/* The phone's name for the Node-API header, in the version that the phone has. */
#ifndef TQREADER_CHECK_NATIVE_API_H
#define TQREADER_CHECK_NATIVE_API_H

#define NAPI_VERSION 8
#include <node_api.h>

#endif
