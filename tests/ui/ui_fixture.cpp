// SPDX-License-Identifier: MIT
#include "ui_fixture.h"

#include "bundle.h"
#include "openvpn_service.h"
#include "text_field.h"
#include "user_defaults.h"
#include "wait_for.h"

#include <QApplication>
#include <QDir>
#include <QTest>

using namespace Qt::StringLiterals;

QString resource(const QString &name)
{
    return Bundle::location() + u"/Contents/Resources/"_s + name;
}

void restoreResources()
{
    const QDir shipped(QStringLiteral(CORVALE_BUNDLE "/Contents/Resources"));
    QDir().mkpath(resource({}));
    for (const QString &name : shipped.entryList(QDir::Files)) {
        QFile::remove(resource(name));
        QFile::link(shipped.filePath(name), resource(name));
    }
    QFile::link(QStringLiteral(CORVALE_BUNDLE "/Contents/Library"), Bundle::location() + u"/Contents/Library"_s);
}

UiTest::UiTest()
{
    restoreResources();
    UserDefaults::removeKeys({u"email"_s, u"password"_s});
    OpenVPNService::shared().setState(u"NOPROCESS"_s);
    delegate_ = std::make_unique<AppDelegate>();
}

UiTest::~UiTest() = default;

void UiTest::launch()
{
    delegate_->applicationDidFinishLaunching();
    ASSERT_TRUE(delegate_->window && delegate_->mainViewController);
    ASSERT_TRUE(QTest::qWaitForWindowActive(delegate_->window.get()));
}

void UiTest::type(const QString &email, const QString &password)
{
    form().emailEdit->setText(email);
    form().passwordEdit->setText(password);
}

void UiTest::click(QWidget &widget)
{
    QTest::mouseClick(&widget, Qt::LeftButton);
}

void UiTest::announce(const QString &state)
{
    bool heard = false;
    const auto listening =
        QObject::connect(&OpenVPNService::shared(), &OpenVPNService::OpenVPNStateDidChange, [&heard] { heard = true; });
    OpenVPNService::shared().updateState(state);
    ASSERT_TRUE(waitFor([&heard] { return heard; }));
    QObject::disconnect(listening);
}

QMessageBox *UiTest::alert()
{
    for (QWidget *const window : QApplication::topLevelWidgets())
        if (auto *const box = qobject_cast<QMessageBox *>(window); box && box->isVisible())
            return box;
    return nullptr;
}

QString UiTest::alertText()
{
    return alert() ? alert()->text() : QString();
}

void UiTest::closeAlert()
{
    const QPointer<QMessageBox> closing = alert();
    ASSERT_TRUE(closing && QTest::qWaitForWindowExposed(closing));
    QTest::keyClick(closing, Qt::Key_Escape);
    ASSERT_TRUE(waitFor([&closing] { return closing.isNull(); }));
}

QString UiTest::nextAlert()
{
    if (!waitFor([] { return alert() != nullptr; }))
        return {};
    const QString text = alertText();
    closeAlert();
    return text;
}
