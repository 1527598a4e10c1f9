// libFuzzer target: the graph-file loader. Any bytes give a graph or a clean
// error; never a crash, a leak, a hang or an assertion of the library.

#include "graphfile.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QString>

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    static QCoreApplication application(*argc, *argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    GraphFile graph;
    QString error;
    const bool loaded =
        GraphFile::parse(QByteArray::fromRawData(reinterpret_cast<const char*>(data), static_cast<int>(size)), &graph,
                         &error);
    // A refusal must say what is wrong.
    if (!loaded && error.isEmpty()) {
        std::fprintf(stderr, "fuzz_graphfile: refused without a message\n");
        std::abort();
    }
    return 0;
}
