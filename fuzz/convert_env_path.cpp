// libFuzzer target for convert_env_path, the ${NAME} expansion of configured paths: the
// input up to its first NUL is the source, expanded into destinations of 512 bytes (what
// every caller passes), 64 and 1. Result and destination must match a model of the rules
// (source cut at 255, unset/empty/over-long variables -3, "${" without "}" -2, a result
// that does not fit -4 with as much as fits). A few variables are set once so that
// expansions succeed as well as fail.
#include "fuzz_support.h"
#include "util.h"

#include <string>
#include <string_view>

namespace
{

constexpr size_t k_source_limit = 255;
constexpr size_t k_value_limit = 255; // longest variable value that expands

void set_environment()
{
    setenv("MGR_QUIL_MANAGER_HOME", "/opt/quil/manager", 1);
    setenv("QUIL_FUZZ_HOME", "/opt/quil", 1);
    setenv("QUIL_FUZZ_EMPTY", "", 1);
    setenv("QUIL_FUZZ_NESTED", "${QUIL_FUZZ_HOME}/x", 1); // values are not expanded again
    setenv("QUIL_FUZZ_LONG", std::string(k_value_limit, 'L').c_str(), 1);
    setenv("QUIL_FUZZ_TOO_LONG", std::string(k_value_limit + 1, 'T').c_str(), 1);
}

// Appends as much of text as fits in a buffer of `size` bytes; false when cut.
bool append(std::string *out, size_t size, std::string_view text)
{
    size_t room = size - 1 - out->size();
    out->append(text.substr(0, room));
    return text.size() <= room;
}

int model(std::string_view rest, size_t size, std::string *out)
{
    rest = rest.substr(0, k_source_limit);
    while (true) {
        size_t open = rest.find("${");
        if (open == std::string_view::npos)
            return append(out, size, rest) ? 0 : -4;
        size_t close = rest.find('}', open + 2);
        if (close == std::string_view::npos)
            return -2;
        std::string name(rest.substr(open + 2, close - open - 2));
        const char *value = getenv(name.c_str());
        if (value == nullptr || value[0] == '\0' || strlen(value) > k_value_limit)
            return -3;
        if (!append(out, size, rest.substr(0, open)) || !append(out, size, value))
            return -4;
        rest.remove_prefix(close + 1);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool environment_set = (set_environment(), true);
    (void)environment_set;

    const std::string source(reinterpret_cast<const char *>(data),
                             strnlen(reinterpret_cast<const char *>(data), size));
    for (size_t dest_size : {size_t{512}, size_t{64}, size_t{1}}) {
        char dest[512] = {};
        const int rc = convert_env_path(source.c_str(), dest, dest_size);
        std::string expected;
        FUZZ_CHECK(rc == model(source, dest_size, &expected));
        FUZZ_CHECK(strnlen(dest, dest_size) < dest_size && expected == dest);
    }
    return 0;
}
