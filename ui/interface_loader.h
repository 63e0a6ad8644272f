// SPDX-License-Identifier: MIT
#pragma once

#include <QUiLoader>

#include <memory>

/// Makes the objects that the interface file describes, including those of the application's own classes. Main thread.
class InterfaceLoader final : public QUiLoader {
    Q_OBJECT

public:
    /// The hidden root of everything that the bundle's file `name` describes. Null when the file is missing or cannot
    /// be read, which is one line in the system log.
    static std::unique_ptr<QWidget> load(const QString &name);

    QWidget *createWidget(const QString &className, QWidget *parent, const QString &name) override;

private:
    InterfaceLoader() = default;
};
