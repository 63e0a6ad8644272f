// SPDX-License-Identifier: MIT
#pragma once

#include <QPushButton>

/// A button without a frame: a title on the button's icon, or alone when there is no icon. The keyboard focus shows as
/// a thick white edge or line, the pointer as a thin one in the title's colour. Main thread.
class TitleButton final : public QPushButton {
    Q_OBJECT

public:
    using QPushButton::QPushButton;

    /// Replaces the title and tells assistive technology. An "&" in it is shown and does not mark a shortcut.
    void setTitle(const QString &title, QColor color, Qt::Alignment horizontal, const QFont &font);

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    void paintEvent(QPaintEvent *event) override;
    void focusInEvent(QFocusEvent *event) override;

private:
    void drawBackground(QPainter &painter) const;
    void drawAttention(QPainter &painter, const QRect &title) const; ///< of the keyboard focus or the pointer
    QSize imageSize() const;

    bool focusShows_ = true; ///< false after the mouse gave it the focus
    Qt::Alignment horizontal_ = Qt::AlignHCenter;
};
