// SPDX-License-Identifier: MIT
#include "alert_sheet.h"

#include "styling.h"

#include <QDialogButtonBox>
#include <QEvent>
#include <QLabel>
#include <QPainter>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace {

constexpr QMargins room(20, 18, 20, 16);
constexpr int betweenRows = 12;
constexpr int beside = 16; // of the window, on either side

} // namespace

AlertSheet::AlertSheet(const QString &message, QWidget *window)
    : QMessageBox(Critical, u"Corvale"_s, message, Ok, window, Qt::Dialog | Qt::FramelessWindowHint)
{
    setAttribute(Qt::WA_DeleteOnClose);
    setTextFormat(Qt::PlainText);
    setFont(Styling::systemFont(Styling::smallPoints));
    QPalette palette = this->palette();
    palette.setColor(QPalette::Window, QColor::fromRgb(Styling::raised));
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
    // One below the other, so that the text has the width of the window.
    delete layout();
    auto *const column = new QVBoxLayout(this);
    column->setContentsMargins(room);
    column->setSpacing(betweenRows);
    column->addWidget(image, 0, Qt::AlignHCenter);
    column->addWidget(text_);
    column->addSpacing(betweenRows / 2);
    column->addWidget(buttons);
    text_->setAlignment(Qt::AlignCenter);
    buttons->setCenterButtons(true);
}

bool AlertSheet::event(QEvent *event)
{
    // Upon this one a message box takes the size that it finds best, and ours is the window's business.
    // NOLINTNEXTLINE(bugprone-parent-virtual-call): the base's is what is not to happen.
    return event->type() == QEvent::LayoutRequest ? QDialog::event(event) : QMessageBox::event(event);
}

void AlertSheet::showEvent(QShowEvent *event)
{
    QMessageBox::showEvent(event);
    const QWidget *const window = parentWidget();
    if (!window || !text_)
        return;
    // Every sheet is as wide as its window allows, and long lines are broken rather than let out of it.
    text_->setWordWrap(true);
    const int width = std::max(window->width() - 2 * beside, layout()->totalMinimumSize().width());
    setFixedSize(width, layout()->totalHeightForWidth(width));
    // Qt leaves room for a frame, and there is none.
    move(window->geometry().center() - rect().center());
}

void AlertSheet::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setPen(QColor::fromRgb(Styling::grey));
    painter.drawRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5));
}
