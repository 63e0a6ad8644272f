// SPDX-License-Identifier: MIT
#include "text_field.h"

#include <QGuiApplication>
#include <QPainter>
#include <QRegularExpression>
#include <QStyleHints>
#include <QTimerEvent>

using namespace Qt::StringLiterals;

namespace {

constexpr int ownMargin = 2;      // every line edit leaves it free at both ends
constexpr int verticalMargin = 5; // keeps large letters off the line under the field

} // namespace

TextField::TextField(QWidget *parent) : QLineEdit(parent)
{
    setTextMargins(-ownMargin, verticalMargin, -ownMargin, verticalMargin); // aligns the text with that line
    connect(this, &QLineEdit::cursorPositionChanged, this, &TextField::showCaret);
    connect(this, &QLineEdit::textChanged, this, &TextField::showCaret);
    connect(this, &QLineEdit::textEdited, this, &TextField::removeLineEnds);
}

void TextField::setCaretColor(QColor color)
{
    caretColor_ = color;
    update();
}

void TextField::paintEvent(QPaintEvent *event)
{
    QLineEdit::paintEvent(event);
    if (!caretShown_)
        return;
    QRect caret = cursorRect(); // wider than the caret, which is in its middle
    caret.setLeft(caret.x() + (caret.width() + 1) / 2);
    caret.setWidth(1);
    QPainter(this).fillRect(caret, caretColor_);
}

void TextField::focusInEvent(QFocusEvent *event)
{
    QLineEdit::focusInEvent(event);
    showCaret();
}

void TextField::focusOutEvent(QFocusEvent *event)
{
    QLineEdit::focusOutEvent(event);
    showCaret();
}

void TextField::timerEvent(QTimerEvent *event)
{
    if (event->timerId() != blink_.timerId())
        return QLineEdit::timerEvent(event);
    caretShown_ = !caretShown_;
    update();
}

void TextField::removeLineEnds(const QString &edited)
{
    static const QRegularExpression lineEnd(u"[\r\n]"_s);
    if (!edited.contains(lineEnd))
        return;
    QString kept = edited;
    const qsizetype caret = QString(edited).left(cursorPosition()).remove(lineEnd).size();
    setText(kept.remove(lineEnd));
    setCursorPosition(static_cast<int>(caret));
}

void TextField::showCaret()
{
    caretShown_ = hasFocus();
    const int period = QGuiApplication::styleHints()->cursorFlashTime();
    if (caretShown_ && period > 1)
        blink_.start(period / 2, this);
    else
        blink_.stop();
    update();
}
