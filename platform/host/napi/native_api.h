/* The phone's name for the Node-API header; here it is Node.js's own. */
#ifndef TQREADER_HOST_NATIVE_API_H
#define TQREADER_HOST_NATIVE_API_H

#include <node_api.h>

#endif
