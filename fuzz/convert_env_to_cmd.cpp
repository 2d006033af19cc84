// libFuzzer target for convert_env_to_cmd, which builds the command prefix from the
// "custom_prefix" template and a user name the DG sent. The input is the template up to its
// first NUL, then the user name up to the next NUL (no NUL: no user at all). Checked: the
// result is a documented one, 0 exactly for an empty template, 1 for any template without
// variables; the prefix (exactly 512 bytes) is terminated; a success is the template (cut at
// 511) with each ${run_user_name} replaced by the user, holds no "${", and splices a user into
// the shell command line only when it is a plain name (letters, digits, '.', '_', '-', under
// 64 characters).
#include "fuzz_support.h"
#include "command_util.h"
#include "thr_command.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    const size_t split = input.find('\0');
    const std::string tmpl(input.substr(0, split));
    const bool has_user = split != std::string_view::npos;
    const std::string user(has_user ? input.substr(split + 1).substr(0, input.substr(split + 1).find('\0')) : "");

    std::vector<char> out(CUSTOM_PREFIX_SIZE, '\0');
    const int rc = convert_env_to_cmd(tmpl.c_str(), out.data(), has_user ? user.c_str() : nullptr);
    const std::string_view cut = std::string_view(tmpl).substr(0, CUSTOM_PREFIX_SIZE - 1);
    const bool has_variable = cut.find("${") != std::string_view::npos;
    FUZZ_CHECK(rc >= -4 && rc <= 1 && (rc == 0) == tmpl.empty() && (rc == 1 || tmpl.empty() || has_variable));
    FUZZ_CHECK(strnlen(out.data(), out.size()) < out.size());
    if (rc != 1)
        return 0;
    const std::string prefix(out.data());
    FUZZ_CHECK(prefix == fuzz_support::replace_tokens(cut, {{"${run_user_name}", user}}));
    FUZZ_CHECK(prefix.find("${") == std::string::npos);
    constexpr std::string_view plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
    FUZZ_CHECK(!has_variable || (has_user && !user.empty() && user.size() < 64 &&
                                 user.find_first_not_of(plain) == std::string::npos));
    return 0;
}
