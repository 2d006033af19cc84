// Tests of the breadcrumb table: the macro records the file and line into its own slot
// only, and the start-up reset clears every slot. The dump and the handler are exercised by
// the scenario tests against the real binary.
#include "signal_ctl.h"

#include "global_var.h"

#include <gtest/gtest.h>

#include <cstring>

namespace
{

TEST(SignalDebugCode, MacroRecordsFileAndLineIntoItsSlot)
{
    ASSERT_EQ(init_global_var("/tmp/x"), 0);
    for (const auto &slot : g_signal_debug_code) {
        EXPECT_EQ(slot.file.load(), nullptr);
        EXPECT_EQ(slot.line.load(), 0);
    }
    int line = __LINE__ + 1;
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_COMMAND);
    EXPECT_STREQ(g_signal_debug_code[SIGNAL_DEBUG_COMMAND].file.load(), __FILE__);
    EXPECT_EQ(g_signal_debug_code[SIGNAL_DEBUG_COMMAND].line.load(), line);
    EXPECT_EQ(g_signal_debug_code[SIGNAL_DEBUG_MAIN].file.load(), nullptr);

    int garbage_line = __LINE__ + 1;
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_GARBAGE);
    EXPECT_EQ(g_signal_debug_code[SIGNAL_DEBUG_GARBAGE].line.load(), garbage_line);
    EXPECT_EQ(g_signal_debug_code[SIGNAL_DEBUG_COMMAND].line.load(), line);

    ASSERT_EQ(init_global_var("/tmp/x"), 0);
    for (const auto &slot : g_signal_debug_code)
        EXPECT_EQ(slot.file.load(), nullptr);
    EXPECT_STREQ(g_vk_manager_home, "/tmp/x/manager");
    EXPECT_EQ(init_global_var(nullptr), -1);
}

} // namespace
