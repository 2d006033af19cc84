// Tests of the breadcrumb table: the macro records the file and line into its own slot
// only, and the start-up reset clears every slot. The dump and the handler are exercised by
// the scenario tests against the real binary.
#include "signal_ctl.h"

#include "global_var.h"

#include <gtest/gtest.h>

namespace
{

TEST(SignalDebugCode, MacroRecordsFileAndLineIntoItsSlot)
{
    clear_signal_debug_code();
    const int line = __LINE__ + 1;
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_COMMAND);
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_GARBAGE);
    EXPECT_STREQ(g_signal_debug_code[SIGNAL_DEBUG_COMMAND].file.load(), __FILE__);
    EXPECT_EQ(g_signal_debug_code[SIGNAL_DEBUG_COMMAND].line.load(), line);
    EXPECT_EQ(g_signal_debug_code[SIGNAL_DEBUG_GARBAGE].line.load(), line + 1);
    EXPECT_EQ(g_signal_debug_code[SIGNAL_DEBUG_MAIN].file.load(), nullptr);

    clear_signal_debug_code();
    for (const auto &slot : g_signal_debug_code)
        EXPECT_TRUE(slot.file.load() == nullptr && slot.line.load() == 0);
}

} // namespace
