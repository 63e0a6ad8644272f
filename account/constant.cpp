// SPDX-License-Identifier: MIT
#include "constant.h"

using namespace Qt::StringLiterals;

const QString &Constant::baseURL()
{
    static const QString url = u"https://api.corvale.example/api/"_s;
    return url;
}

const QString &Constant::loginURL()
{
    static const QString url = baseURL() + u"login"_s;
    return url;
}

const QString &Constant::profileURL()
{
    static const QString url = baseURL() + u"profile"_s;
    return url;
}
