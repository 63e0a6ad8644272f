// SPDX-License-Identifier: MIT
#pragma once

#include <QPushButton>

/// A button that is its title, on its icon as the background where it has one. It has no frame; the keyboard focus
/// shows as a white edge or line, the pointer over it as a thin one. Main thread.
class TitleButton final : public QPushButton {
    Q_OBJECT

public:
    using QPushButton::QPushButton;

    /// Replaces the title and tells assistive technology. The title is shown as it stands: an "&" marks no shortcut.
    void setTitle(const QString &title, QColor color, Qt::Alignment horizontal, const QFont &font);

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    void paintEvent(QPaintEvent *event) override;
    void focusInEvent(QFocusEvent *event) override;

private:
    void drawBackground(QPainter &painter) const;
    void drawAttention(QPainter &painter, const QRect &title) const; ///< the keyboard focus, or the pointer over it
    QSize imageSize() const;

    bool focusShows_ = true; ///< not the mouse gave it the focus
    Qt::Alignment horizontal_ = Qt::AlignHCenter;
};
