// SPDX-License-Identifier: MIT
#include "management_lines.h"

#include <QByteArrayList>

#include <gmock/gmock.h>

using ManagementLines::actionFor;
using Kind = ManagementLines::Action::Kind;

namespace {

/// Feeds the chunks one by one, as the reader does, and returns the lines cut; `left` gets what stays in the buffer.
QList<QByteArray> linesOf(const QList<QByteArray> &chunks, QByteArray &left)
{
    QList<QByteArray> lines;
    for (const QByteArray &chunk : chunks) {
        const QByteArray buffer = left + chunk;
        QByteArrayView view = buffer;
        while (const auto line = ManagementLines::takeLine(view))
            lines << line->toByteArray();
        left = view.toByteArray();
    }
    return lines;
}

} // namespace

TEST(Framing, CutsAtCrLfWhereverTheChunksEnd)
{
    struct Row {
        QList<QByteArray> chunks;
        QList<QByteArray> lines;
        QByteArray left;
    };
    const Row rows[] = {
        {{"A\r\nB\r\nC", "D\r\n"}, {"A", "B", "CD"}, ""},
        {{"A\r\n"}, {"A"}, ""},
        {{"A\r", "\nB"}, {"A"}, "B"},
        {{"\r\n\r\n"}, {"", ""}, ""},
        {{"A\rB"}, {}, "A\rB"},
        {{"X\nY"}, {"X\nY"}, ""},
        {{"X\nY\r\nZ"}, {"X\nY"}, "Z"},
        {{"A\r\nX\nY"}, {"A", "X\nY"}, ""},
        {{"A\r\n\r", "\n"}, {"A", ""}, ""},
        {{"\n"}, {"\n"}, ""},
        {{"A\n\r\n"}, {"A\n"}, ""},
    };
    for (const Row &row : rows) {
        QByteArray left;
        EXPECT_EQ(linesOf(row.chunks, left), row.lines) << row.chunks.join('|').constData();
        EXPECT_EQ(left, row.left) << row.chunks.join('|').constData();
    }
}

TEST(Dispatch, ClassifiesEveryKindOfLine)
{
    struct Row {
        const char *line;
        Kind kind;
        const char *text;
    };
    const Row rows[] = {
        {">INFO:x", Kind::None, ""},
        {">STATE:5,CONNECTED,x", Kind::State, "5,CONNECTED,x"},
        {">LOG:1,I,a:b:c", Kind::Print, "1,I,a:b:c"},
        {">LOG:", Kind::Print, ""},
        {">state:5,CONNECTED,x", Kind::PrintUnknownCommand, ">state:5,CONNECTED,x"},
        {"> STATE:5,CONNECTED,x", Kind::PrintUnknownCommand, "> STATE:5,CONNECTED,x"},
        {">:x", Kind::PrintUnknownCommand, ">:x"},
        {">STATE", Kind::PrintUnknownLine, ">STATE"},
        {"SUCCESS:", Kind::None, ""},
        {"SUCCESS", Kind::PrintUnknownLine, "SUCCESS"},
        {"PROTECTFD: x", Kind::None, ""},
        {"PROTECTFD:x", Kind::PrintUnknownLine, "PROTECTFD:x"},
        {"ERROR: unknown command", Kind::PrintUnknownLine, "ERROR: unknown command"},
        {" >STATE:5,CONNECTED,x", Kind::PrintUnknownLine, " >STATE:5,CONNECTED,x"},
        {"", Kind::PrintUnknownLine, ""},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(actionFor(row.line).kind, row.kind) << row.line;
        EXPECT_EQ(actionFor(row.line).text, QByteArrayView(row.text)) << row.line;
    }
    for (const char *ignored : {"PASSWORD", "HOLD", "NEED-OK", "BYTECOUNT", "PROXY", "RSA_SIGN"})
        EXPECT_EQ(actionFor('>' + QByteArray(ignored) + ":x").kind, Kind::None) << ignored;
}

TEST(Dispatch, TakesTheStateNameBetweenTheFirstTwoCommas)
{
    using testing::Eq;
    EXPECT_THAT(ManagementLines::stateName("123,CONNECTED,SUCCESS,10.8.0.6"), Eq(QByteArrayView("CONNECTED")));
    EXPECT_THAT(ManagementLines::stateName("5, wait ,"), Eq(QByteArrayView(" wait ")));
    EXPECT_THAT(ManagementLines::stateName("5,,x"), Eq(QByteArrayView("")));
    EXPECT_THAT(ManagementLines::stateName("5,WAIT"), Eq(std::nullopt));
    EXPECT_THAT(ManagementLines::stateName(""), Eq(std::nullopt));
}
