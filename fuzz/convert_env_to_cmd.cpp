// libFuzzer target for convert_env_to_cmd, which builds the command prefix from the
// "custom_prefix" template and a user name the DG sent. The input is the template up to
// its first NUL, then the user name up to the next NUL (no NUL: no user at all). Result and
// prefix must match a model of the rules: only ${run_user_name} is known, the user must be
// a plain name (letters, digits, '.', '_', '-', under 64 characters) before it is spliced
// into a shell command line, and a result that does not fit 511 characters is refused.
#include "fuzz_support.h"
#include "thr_command.h"

#include <string>
#include <string_view>

namespace
{

constexpr size_t k_template_limit = CUSTOM_PREFIX_SIZE - 1;

bool plain_user(std::string_view user)
{
    if (user.empty() || user.size() >= 64)
        return false;
    for (char c : user)
        if (!isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-')
            return false;
    return true;
}

// Appends text whole, or nothing when it would not fit.
bool append(std::string *out, std::string_view text)
{
    if (out->size() + text.size() > k_template_limit)
        return false;
    out->append(text);
    return true;
}

int model(std::string_view rest, std::string_view user, std::string *out)
{
    if (rest.empty())
        return 0;
    rest = rest.substr(0, k_template_limit);
    while (true) {
        size_t open = rest.find("${");
        if (open == std::string_view::npos)
            return append(out, rest) ? 1 : -1;
        size_t close = rest.find('}', open + 2);
        if (close == std::string_view::npos)
            return -2;
        if (rest.substr(open + 2, close - open - 2) != "run_user_name")
            return -3;
        if (!plain_user(user))
            return -4;
        if (!append(out, rest.substr(0, open)) || !append(out, user))
            return -1;
        rest.remove_prefix(close + 1);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    const size_t split = input.find('\0');
    const std::string tmpl(input.substr(0, split));
    const bool has_user = split != std::string_view::npos;
    std::string user;
    if (has_user) {
        std::string_view rest = input.substr(split + 1);
        user = rest.substr(0, rest.find('\0'));
    }

    char out[CUSTOM_PREFIX_SIZE] = {};
    const int rc = convert_env_to_cmd(tmpl.c_str(), out, has_user ? user.c_str() : nullptr);
    std::string expected;
    FUZZ_CHECK(rc == model(tmpl, user, &expected));
    FUZZ_CHECK(strnlen(out, sizeof(out)) < sizeof(out) && expected == out);
    return 0;
}
