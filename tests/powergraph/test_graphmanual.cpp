// The graph file's manual page (docs/vela-power-graph.5) is written by hand:
// it must name every key the loader accepts and every finding code verify
// gives, with its severity. The keys are asked of the loader itself, through
// the list of keys it names when it refuses an unknown one.

#include "finding.h"
#include "graphfile.h"

#include <QFile>
#include <QRegularExpression>

#include <gtest/gtest.h>

namespace {

QString manualPage()
{
    QFile page(QStringLiteral(VELA_GRAPH_MANUAL_PAGE));
    if (!page.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromUtf8(page.readAll()).replace(QStringLiteral("\\-"), QStringLiteral("-"));
}

// The keys the loader accepts where `json` puts the key "bogus", read from
// its refusal ("unknown key "bogus" (expected one of: a, b, c)").
QStringList acceptedKeys(const QByteArray& json)
{
    GraphFile file;
    GraphFile::Failure failure;
    if (GraphFile::parse(json, QStringLiteral("keys.json"), &file, &failure, GraphFile::Naming::CheckOnly))
        return {};
    const QRegularExpression list(QStringLiteral("unknown key \"bogus\" \\(expected one of: ([^)]*)\\)$"));
    const QRegularExpressionMatch match = list.match(failure.what);
    return match.hasMatch() ? match.captured(1).split(QStringLiteral(", ")) : QStringList();
}

// Whether the page documents `key`: as a bold key in the text, or as a row
// of a table.
bool documents(const QString& page, const QString& key)
{
    const QString escaped = QRegularExpression::escape(key);
    const QRegularExpression asKey(QStringLiteral("^\\.BR? %1(?![A-Za-z])|^%1@").arg(escaped),
                                   QRegularExpression::MultilineOption);
    return page.contains(asKey);
}

} // namespace

TEST(GraphManual, NamesEveryKeyTheLoaderAccepts)
{
    const QString page = manualPage();
    ASSERT_FALSE(page.isEmpty()) << VELA_GRAPH_MANUAL_PAGE;
    const QList<QByteArray> places = {
        R"({"bogus": 1})",
        R"({"modules": [{"name": "m", "bogus": 1}]})",
        R"({"resources": [{"name": "r", "bogus": 1}]})",
        R"({"resources": [{"name": "r", "enable": {"bogus": 1}}]})",
        R"({"targets": [{"name": "t", "bogus": 1}]})",
        R"({"platform": {"/p": {"bogus": 1}}})",
        R"({"controls": {"/p": {"bogus": 1}}})",
        R"({"controls": {"/p": {"dbus": {"bogus": 1}}}})",
        R"({"requests": [{"target": "t", "bogus": 1}]})",
    };
    int keys = 0;
    for (const QByteArray& json : places) {
        const QStringList accepted = acceptedKeys(json);
        EXPECT_FALSE(accepted.isEmpty()) << "the loader named no keys for " << json.toStdString();
        for (const QString& key : accepted) {
            ++keys;
            EXPECT_TRUE(documents(page, key))
                << "not in the manual page: " << key.toStdString() << " (in " << json.toStdString() << ")";
        }
    }
    // Six top-level keys, and the keys of eight kinds of object.
    EXPECT_GE(keys, 32);
}

TEST(GraphManual, ListsEveryFindingCodeWithItsSeverity)
{
    const QString page = manualPage();
    ASSERT_FALSE(page.isEmpty()) << VELA_GRAPH_MANUAL_PAGE;
    int count = 0;
    const Finding::Kind* kinds = Finding::kinds(&count);
    ASSERT_EQ(count, 16);
    for (int index = 0; index < count; ++index) {
        const QString row = QStringLiteral("%1@%2@").arg(QLatin1String(kinds[index].name),
                                                         Finding::severityName(kinds[index].severity));
        EXPECT_TRUE(page.contains(QRegularExpression(QLatin1Char('^') + QRegularExpression::escape(row),
                                                     QRegularExpression::MultilineOption)))
            << "the table of codes lacks the row " << row.toStdString();
    }
}

TEST(GraphManual, FindingCodesAreOneEachAndInTheOrderOfTheirEnumeration)
{
    int count = 0;
    const Finding::Kind* kinds = Finding::kinds(&count);
    QStringList names;
    for (int index = 0; index < count; ++index) {
        EXPECT_EQ(static_cast<int>(kinds[index].code), index);
        EXPECT_EQ(&Finding::kind(kinds[index].code), &kinds[index]);
        names.append(QLatin1String(kinds[index].name));
        EXPECT_FALSE(QString::fromUtf8(kinds[index].meaning).isEmpty());
    }
    names.removeDuplicates();
    EXPECT_EQ(names.size(), count);
}
