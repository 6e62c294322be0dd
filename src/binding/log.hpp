// The log lines of the binding: application type, level info, domain 0, no tag.
#pragma once

#include <hilog/log.h>

#define TQ_LOG(...) OH_LOG_Print(LOG_APP, LOG_INFO, 0, nullptr, __VA_ARGS__)
