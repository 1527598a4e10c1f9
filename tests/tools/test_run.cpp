// vela-power run: the shipped example, the gate on graphs with errors, the
// self-edge that is never handed to the library, and the summary.

#include "toolrun.h"

#include <gtest/gtest.h>

TEST(Run, ShippedExampleRunsToCompletion)
{
    const ToolRun run = runTool({"run", "--timeout-ms", "20000", shippedExample()});
    ASSERT_TRUE(run.finishedNormally);
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_TRUE(run.out.contains("8 of 8 requests answered, 7 succeeded\n")) << run.out.toStdString();
    // The camera's platform never answers: each of its three writes runs out of time.
    EXPECT_TRUE(run.out.contains("3 set-data writes failed, 3 of them timed out\n")) << run.out.toStdString();
}

TEST(Run, RefusedRequestGetsAPlainReasonBesideTheLibrarysAnswer)
{
    const ToolRun run = runTool({"run", "--timeout-ms", "20000", shippedExample()});
    ASSERT_TRUE(run.finishedNormally);
    EXPECT_TRUE(run.out.contains("answer    #5 failed: Failed to resolve dependencies\n")) << run.out.toStdString();
    EXPECT_TRUE(run.out.contains("reason    #5 active is enabled and its reachable list (standby, off) leaves out "
                                 "suspend\n"))
        << run.out.toStdString();
}

TEST(Run, GraphWithASelfEdgeIsRefusedWithoutForce)
{
    const QString file = dataFile("findings/self_edge.json");
    const ToolRun run = runTool({"run", file});
    ASSERT_TRUE(run.finishedNormally);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.err.contains((file + ":2:36: error: self-edge: lamp requires itself\n").toUtf8()))
        << run.err.toStdString();
    EXPECT_TRUE(run.out.isEmpty()) << "nothing ran: " << run.out.toStdString();
}

TEST(Run, ForcedSelfEdgeIsSkippedAndTheRestRuns)
{
    const ToolRun run = runTool({"run", "--force", dataFile("findings/self_edge.json")});
    ASSERT_TRUE(run.finishedNormally) << "the library's assertion stopped the program";
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_TRUE(run.out.contains("skipped   lamp requires itself (line 2, column 36): not given to the library\n"))
        << run.out.toStdString();
    EXPECT_TRUE(run.out.contains("1 of 1 requests answered, 1 succeeded\n")) << run.out.toStdString();
}

TEST(Run, ForcedConflictShowsTheLibrarysOwnRefusal)
{
    const ToolRun run = runTool({"run", "--force", dataFile("findings/enable_disable_conflict.json")});
    ASSERT_TRUE(run.finishedNormally);
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.contains("error     Tried to make power target display-off disable node pd_vio, but it "
                                 "already enables that node.\n"))
        << run.out.toStdString();
}

TEST(Run, RequestsNotSentBeforeTheTimeOutAreNamed)
{
    // The camera's first write never answers and times out after 50 ms of
    // its own, so the run cannot be done at 100 ms; the requests due at
    // 150 ms and later are never sent.
    const ToolRun run = runTool({"run", "--timeout-ms", "100", shippedExample()});
    ASSERT_TRUE(run.finishedNormally);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.out.contains("not sent before the time-out: #5 target suspend (due at 150 ms); #6 target standby "
                                 "(due at 200 ms); #7 target active (due at 300 ms); #8 resource wifi use by "
                                 "connectivity (due at 350 ms)\n"))
        << run.out.toStdString();
}
