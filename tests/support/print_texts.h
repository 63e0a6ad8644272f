// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

#include <gtest/gtest.h>

// A failing test shows texts as texts; without these GoogleTest takes them for lists of numbers. Included before
// anything else in every file of a test, since all of a program must print a type alike.

inline void PrintTo(const QByteArray &text, std::ostream *out)
{
    *out << testing::PrintToString(text.toStdString());
}

inline void PrintTo(const QString &text, std::ostream *out)
{
    *out << testing::PrintToString(text.toStdString());
}
