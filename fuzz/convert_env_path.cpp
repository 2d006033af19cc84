// libFuzzer target for convert_env_path, the ${NAME} expansion of configured paths: the input
// up to its first NUL is the source, expanded into destinations of exactly 512 bytes (what
// every caller passes), 64 and 1. Checked: the result is a documented one; the destination is
// terminated; a success is the source (cut at 255) with each ${NAME} of a set, non-empty
// variable under 256 characters replaced by its value, and a source without "${" always
// expands; a smaller destination holds a prefix of what the 512 bytes held and is refused
// with -4 exactly when that did not fit. A few variables are set so that expansions succeed.
#include "fuzz_support.h"
#include "util.h"

extern char **environ;

namespace
{

// "${NAME}" and the value getenv(NAME) gives, for every NAME that may expand (a NAME may hold
// '=': getenv("A=B") finds the entry "A=B=C").
fuzz_support::tokens_t expandable()
{
    setenv("MGR_QUIL_MANAGER_HOME", "/opt/quil/manager", 1);
    setenv("QUIL_FUZZ_HOME", "/opt/quil", 1);
    setenv("QUIL_FUZZ_EMPTY", "", 1);
    setenv("QUIL_FUZZ_NESTED", "${QUIL_FUZZ_HOME}/x", 1); // values are not expanded again
    setenv("QUIL_FUZZ_LONG", std::string(255, 'L').c_str(), 1);
    setenv("QUIL_FUZZ_TOO_LONG", std::string(256, 'T').c_str(), 1);
    fuzz_support::tokens_t tokens;
    for (char **entry = environ; *entry != nullptr; entry++) {
        const std::string_view text(*entry);
        for (size_t eq = text.find('=', 1); eq != std::string_view::npos; eq = text.find('=', eq + 1))
            if (eq + 1 < text.size() && text.size() - eq - 1 <= 255)
                tokens.push_back({"${" + std::string(text.substr(0, eq)) + "}", std::string(text.substr(eq + 1))});
    }
    return tokens;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const fuzz_support::tokens_t tokens = expandable();
    const std::string source(reinterpret_cast<const char *>(data), strnlen(reinterpret_cast<const char *>(data), size));
    const std::string_view cut = std::string_view(source).substr(0, 255);
    std::string full;
    int full_rc = 0;
    for (size_t dest_size : {size_t{512}, size_t{64}, size_t{1}}) {
        std::vector<char> dest(dest_size, '\0');
        const int rc = convert_env_path(source.c_str(), dest.data(), dest_size);
        FUZZ_CHECK((rc == 0 || (rc >= -4 && rc <= -2)) && strnlen(dest.data(), dest_size) < dest_size);
        const std::string out(dest.data());
        if (dest_size == 512) {
            full = out, full_rc = rc;
            FUZZ_CHECK(rc == 0 || cut.find("${") != std::string_view::npos);
            FUZZ_CHECK(rc != 0 || out == fuzz_support::replace_tokens(cut, tokens));
        } else if (full_rc == 0) {
            FUZZ_CHECK(rc == (full.size() < dest_size ? 0 : -4) && full.starts_with(out));
        }
    }
    return 0;
}
