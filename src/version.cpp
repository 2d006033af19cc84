// version: the agent's version texts, each formatted once into its own static buffer.
// The build supplies the three identifiers and, for a reproducible banner, the date and time.
#include "version.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>

#include "etc.h"
#include "vk_string.h"

#ifndef QUIL_VERSION_MC
#define QUIL_VERSION_MC "0xd6f006f"
#endif
#ifndef QUIL_VERSION_CC
#define QUIL_VERSION_CC "0x2e71ff7"
#endif
#ifndef QUIL_VERSION_PC
#define QUIL_VERSION_PC "0xdb3edcf"
#endif
#ifndef QUIL_BUILD_DATE
#define QUIL_BUILD_DATE __DATE__
#endif
#ifndef QUIL_BUILD_TIME
#define QUIL_BUILD_TIME __TIME__
#endif

namespace
{

constexpr const char *k_suite_version = "3.0";
constexpr const char *k_agent_version = "3.0.11";
constexpr const char *k_os_name = "linux";
constexpr const char *k_machine = "x86_64";
constexpr int k_word_bits = 64;

constexpr std::array<std::string_view, 12> k_month_names = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

char s_agent_version[128];
char s_build_version[64];
char s_full_version[512];
char s_conv_date[40]; // room for three full ints: atoi of an odd date is unbounded

std::once_flag s_agent_once, s_build_once, s_full_once;

} // namespace

const char *conv_manager_build_version_string(const char *date)
{
    char copy[64];
    vk_strlcpy(copy, date, sizeof copy);
    int month = 0, day = 0, year = 0;

    int ctx = kstrtokbegin();
    if (const char *tok = kstrtok(ctx, copy, " ")) {
        for (size_t i = 0; i < k_month_names.size(); i++) {
            if (k_month_names[i] == tok)
                month = static_cast<int>(i) + 1;
        }
        if ((tok = kstrtok(ctx, nullptr, " ")) != nullptr) {
            day = atoi(tok);
            if ((tok = kstrtok(ctx, nullptr, " ")) != nullptr)
                year = atoi(tok);
        }
    }
    kstrtokend(ctx);
    snprintf(s_conv_date, sizeof s_conv_date, "%02d-%02d-%02d", year % 100, month, day);
    return s_conv_date;
}

const char *get_manager_agent_version()
{
    std::call_once(s_agent_once, [] {
        snprintf(s_agent_version, sizeof s_agent_version, "%s (mc: %s, cc: %s, pc: %s)", k_agent_version,
                 QUIL_VERSION_MC, QUIL_VERSION_CC, QUIL_VERSION_PC);
    });
    return s_agent_version;
}

const char *get_manager_build_version_string()
{
    std::call_once(s_build_once, [] {
        snprintf(s_build_version, sizeof s_build_version, "%s %s",
                 conv_manager_build_version_string(QUIL_BUILD_DATE), QUIL_BUILD_TIME);
    });
    return s_build_version;
}

const char *get_manager_full_version_string()
{
    std::call_once(s_full_once, [] {
        snprintf(s_full_version, sizeof s_full_version,
                 "<Tarvane %s> quil-manager-agent %s [%s %s %dbit] Build %s (mc:%s,cc:%s,pc:%s)",
                 k_suite_version, k_agent_version, k_os_name, k_machine, k_word_bits,
                 get_manager_build_version_string(), QUIL_VERSION_MC, QUIL_VERSION_CC, QUIL_VERSION_PC);
    });
    return s_full_version;
}
