// SPDX-License-Identifier: MIT
#pragma once

#include <QUiLoader>

#include <memory>

/// Makes the objects of the interface file, the application's own classes among them. Main thread.
class InterfaceLoader final : public QUiLoader {
    Q_OBJECT

public:
    /// Everything that the bundle's file `name` describes, below its hidden root; null, with a line in the system log,
    /// when the file is missing or cannot be read.
    static std::unique_ptr<QWidget> load(const QString &name);

    QWidget *createWidget(const QString &className, QWidget *parent, const QString &name) override;

private:
    InterfaceLoader() = default;
};
