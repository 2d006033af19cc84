// vklog_version: the logging library's version texts, shown by programs in their banners.
// Constant strings; safe from any thread.
#include "vklog_internal.h"

const char *vklog_get_version()
{
    return "vklog library\nBuild on Feb 15 2024 21:05:29\nVersion 1.0.14 (commit:4a962ce)";
}

const char *vklog_get_simple_version()
{
    return "vklog 1.0.14(4a962ce)";
}
