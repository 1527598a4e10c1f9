#include <QCoreApplication>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// Every test runs inside a QCoreApplication, so replies, timers and posted
// continuations behave as in the service.
int main(int argc, char** argv)
{
    ::testing::InitGoogleMock(&argc, argv);
    // Death tests re-execute the program; "threadsafe" keeps Qt's threads out
    // of the forked child.
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    QCoreApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
