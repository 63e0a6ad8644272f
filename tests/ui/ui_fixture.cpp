// SPDX-License-Identifier: MIT
#include "ui_fixture.h"

#include "bundle.h"
#include "openvpn_service.h"
#include "text_field.h"
#include "user_defaults.h"
#include "wait_for.h"

#include <QApplication>
#include <QDir>
#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;

UiTest::UiTest()
{
    const QDir shipped(QStringLiteral(CORVALE_BUNDLE "/Contents/Resources"));
    QDir().mkpath(resource({}));
    for (const QString &name : shipped.entryList(QDir::Files)) {
        QFile::remove(resource(name));
        QFile::link(shipped.filePath(name), resource(name));
    }
    QFile::link(QStringLiteral(CORVALE_BUNDLE "/Contents/Library"), Bundle::location() + u"/Contents/Library"_s);
    UserDefaults::removeKeys({u"email"_s, u"password"_s});
    OpenVPNService::shared().setState(u"NOPROCESS"_s);
}

QString UiTest::resource(const QString &name)
{
    return Bundle::location() + u"/Contents/Resources/"_s + name;
}

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
    QSignalSpy announced(&OpenVPNService::shared(), &OpenVPNService::OpenVPNStateDidChange);
    OpenVPNService::shared().updateState(state);
    ASSERT_TRUE(announced.count() > 0 || announced.wait());
}

QMessageBox *UiTest::alert()
{
    return qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
}

QString UiTest::nextAlert()
{
    if (!waitFor([] { return alert() != nullptr; }))
        return {};
    const QPointer<QMessageBox> box = alert();
    QString text = box->text();
    EXPECT_TRUE(QTest::qWaitForWindowExposed(box));
    QTest::keyClick(box, Qt::Key_Escape);
    EXPECT_TRUE(waitFor([&box] { return box.isNull(); }));
    return text;
}
