// main: entry point of quil-manager-agent. Reads the command line; the daemon's start-up
// (environment, configuration, single-instance guard, worker threads) hangs off here.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "version.h"

// Prints the version banner and the usage text on standard output and exits with `code`.
// The usage line leaves out -c although the list below it names it.
[[noreturn]] static void usage_exit(const char *program, int code)
{
    printf("%s\n", get_manager_full_version_string());
    printf("[usage] %s [-D][-d][-v|-h]\n", program);
    printf(" D : daemonize\n");
    printf(" d : debug\n");
    printf(" v : print version\n");
    printf(" c : print os information.\n");
    printf(" h : print this message\n");
    printf("\n");
    exit(code);
}

int main(int argc, char **argv)
{
    for (int i = 0; i < argc; i++) {
        if (strcmp(argv[i], "-v") == 0) {
            printf("%s\n", get_manager_full_version_string());
            return 0;
        }
        if (strcmp(argv[i], "-h") == 0)
            usage_exit(argv[0], 0);
    }
    return 0;
}
