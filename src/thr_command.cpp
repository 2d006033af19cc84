// thr_command: the command thread and the execution of queued commands.
#include "thr_command.h"

char g_custom_prefix[CUSTOM_PREFIX_SIZE];
char g_custom_patch_prefix[CUSTOM_PREFIX_SIZE];
int g_custom_prefix_flag = 0;
