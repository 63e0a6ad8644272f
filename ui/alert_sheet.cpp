// SPDX-License-Identifier: MIT
#include "alert_sheet.h"

#include "theme.h"

#include <QDialogButtonBox>
#include <QEvent>
#include <QLabel>
#include <QPainter>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace {

constexpr QMargins margins(20, 18, 20, 16);
constexpr int rowSpacing = 12;
constexpr int windowMargin = 16; // between the sheet and the window's left and right edge

} // namespace

AlertSheet::AlertSheet(const QString &message, QWidget *window)
    : QMessageBox(Critical, u"Corvale"_s, message, Ok, window, Qt::Dialog | Qt::FramelessWindowHint)
{
    setAttribute(Qt::WA_DeleteOnClose);
    setTextFormat(Qt::PlainText);
    setFont(Theme::systemFont(Theme::smallPoints));
    QPalette palette = this->palette();
    palette.setColor(QPalette::Window, Theme::raised);
    setPalette(palette);
    arrange();
}

void AlertSheet::arrange()
{
    auto *const image = findChild<QLabel *>(u"qt_msgboxex_icon_label"_s);
    auto *const buttons = findChild<QDialogButtonBox *>();
    text_ = findChild<QLabel *>(u"qt_msgbox_label"_s);
    if (!image || !buttons || !text_)
        return;
    // One below the other, which gives the text the width of the window.
    delete layout();
    auto *const column = new QVBoxLayout(this);
    column->setContentsMargins(margins);
    column->setSpacing(rowSpacing);
    column->addWidget(image, 0, Qt::AlignHCenter);
    column->addWidget(text_);
    column->addSpacing(rowSpacing / 2);
    column->addWidget(buttons);
    text_->setAlignment(Qt::AlignCenter);
    buttons->setCenterButtons(true);
}

bool AlertSheet::event(QEvent *event)
{
    // A message box answers this event by choosing its own size. The size of a sheet follows from its window.
    // NOLINTNEXTLINE(bugprone-parent-virtual-call): skips the message box's answer.
    return event->type() == QEvent::LayoutRequest ? QDialog::event(event) : QMessageBox::event(event);
}

void AlertSheet::showEvent(QShowEvent *event)
{
    QMessageBox::showEvent(event);
    const QWidget *const window = parentWidget();
    if (!window || !text_)
        return;
    // Every sheet is as wide as its window allows. Long lines wrap.
    text_->setWordWrap(true);
    const int width = std::max(window->width() - 2 * windowMargin, layout()->totalMinimumSize().width());
    setFixedSize(width, layout()->totalHeightForWidth(width));
    // Qt places a window as if it had a frame, and this one has none.
    move(window->geometry().center() - rect().center());
}

void AlertSheet::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setPen(Theme::grey);
    painter.drawRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5));
}
