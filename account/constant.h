// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QString>

/// The account service's addresses, each made on first use. Any thread.
class Constant final : public QObject {
public:
    static const QString &baseURL();    ///< ends with a slash
    static const QString &loginURL();   ///< of the sign-in request
    static const QString &profileURL(); ///< of the profile request, without its query
};
