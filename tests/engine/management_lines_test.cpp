// SPDX-License-Identifier: MIT
#include "management_lines.h"

#include <QByteArrayList>

#include <gmock/gmock.h>

using ManagementLines::actionFor;
using Kind = ManagementLines::Action::Kind;

TEST(Framing, CutsAtCrLfAndTakesWhatHasAnotherLineEndAsItIs)
{
    struct Row {
        QByteArray buffer;
        QList<QByteArray> lines;
        QByteArray left;
    };
    const Row rows[] = {
        {"A\r\nB\r\nC", {"A", "B"}, "C"}, {"\r\n\r\n", {"", ""}, ""}, {"A\r", {}, "A\r"},
        {"A\r\nX\nY", {"A", "X\nY"}, ""}, {"A\n\r\n", {"A\n"}, ""},
    };
    for (const Row &row : rows) {
        QByteArrayView left = row.buffer;
        QList<QByteArray> lines;
        while (const auto line = ManagementLines::takeLine(left))
            lines << line->toByteArray();
        EXPECT_EQ(lines, row.lines) << row.buffer.constData();
        EXPECT_EQ(left, row.left) << row.buffer.constData();
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
