// SPDX-License-Identifier: MIT
#include "main_view_controller.h"

#include "account_client.h"
#include "alert_sheet.h"
#include "app_delegate.h"
#include "connection_state.h"
#include "openvpn_service.h"
#include "styling.h"
#include "system_log.h"
#include "text_field.h"
#include "theme.h"
#include "title_button.h"
#include "user_defaults.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QDesktopServices>
#include <QKeyEvent>
#include <QLabel>
#include <QMainWindow>
#include <QScreen>
#include <QUrl>

using namespace Qt::StringLiterals;

namespace {

constexpr QLatin1String website("https://www.corvale.example");
constexpr QLatin1String emailKey("email");
constexpr QLatin1String passwordKey("password");

void fill(QWidget &widget, QColor color)
{
    QPalette palette = widget.palette();
    palette.setColor(QPalette::Window, color);
    widget.setPalette(palette);
    widget.setAutoFillBackground(true);
}

} // namespace

MainViewController::MainViewController(QWidget *parent)
    : QWidget(parent), appDelegate(dynamic_cast<AppDelegate *>(HelperClient::shared()))
{
}

bool MainViewController::loadView()
{
    if (!connectOutlets())
        return false;
    viewDidLoad();
    return true;
}

bool MainViewController::connectOutlets()
{
    const auto find = [this](auto &outlet, const char *name) {
        outlet = findChild<std::remove_reference_t<decltype(*outlet)> *>(QLatin1String(name));
        if (!outlet)
            SystemLog::write(u"Main.ui: no outlet "_s + QLatin1String(name));
        return !outlet.isNull();
    };
    return find(connectButton, "connectButton") && find(emailEdit, "emailEdit") && find(emailLine, "emailLine") &&
           find(passwordEdit, "passwordEdit") && find(passwordLine, "passwordLine") &&
           find(rememberCheck, "rememberCheck") && find(signupButton, "signupButton") &&
           find(rememberText, "rememberText") && find(helpButton, "helpButton");
}

void MainViewController::viewDidLoad()
{
    fill(*this, Theme::background);
    fill(*emailLine, Theme::grey);
    fill(*passwordLine, Theme::grey);
    if (auto *const emblem = findChild<QLabel *>(u"emblem"_s)) {
        emblem->setAccessibleName(u"Corvale"_s);
        emblem->setPixmap(QApplication::windowIcon().pixmap(emblem->minimumSize(), devicePixelRatio()));
    }
    rememberText->setBuddy(rememberCheck);

    emailEdit->setText(UserDefaults::stringForKey(emailKey).value_or(QString()));
    passwordEdit->setText(UserDefaults::stringForKey(passwordKey).value_or(QString()));

    connectButton->setIcon(Theme::imageNamed(u"bg_button"_s));
    Styling::setColoredTitle(*connectButton, u"Conectar"_s, Theme::grey);
    signupButton->setTitle(u"Registrarme"_s, Theme::grey, Qt::AlignLeft, Theme::systemFont(Theme::smallPoints));
    helpButton->setTitle(u"Ayuda"_s, Theme::grey, Qt::AlignRight, Theme::systemFont(Theme::smallPoints));

    connect(connectButton, &TitleButton::clicked, this, &MainViewController::onConnectButtonClick);
    connect(emailEdit, &TextField::returnPressed, this, &MainViewController::onConnectButtonClick);
    connect(passwordEdit, &TextField::returnPressed, this, &MainViewController::onConnectButtonClick);
    connect(signupButton, &TitleButton::clicked, this, &MainViewController::onSignUpButtonClick);
    connect(helpButton, &TitleButton::clicked, this, &MainViewController::onHelpButtonClick);
    for (auto *const button : {connectButton.get(), signupButton.get(), helpButton.get()})
        button->setAutoDefault(true); // Return presses them, as it presses the button of an alert
    rememberText->installEventFilter(this);
    rememberCheck->installEventFilter(this);
    hideHeadingOnSmallScreen();
    connect(&OpenVPNService::shared(), &OpenVPNService::OpenVPNStateDidChange, this,
            &MainViewController::openVPNStateDidChange);
}

void MainViewController::hideHeadingOnSmallScreen() const
{
    // The window has one size and does not scroll, so all its controls must fit on the screen.
    constexpr int titleBarHeight = 40;
    auto *const heading = findChild<QWidget *>(u"heading"_s);
    if (heading && sizeHint().height() + titleBarHeight > screen()->availableGeometry().height())
        heading->hide();
}

void MainViewController::viewDidAppear() const
{
    emailEdit->setCaretColor(Theme::white);
    passwordEdit->setCaretColor(Theme::white);
    Styling::setColoredPlaceholder(*emailEdit, u"Email"_s, Theme::grey);
    Styling::setColoredPlaceholder(*passwordEdit, u"Contraseña"_s, Theme::grey);
    emailEdit->setFrame(false);
    passwordEdit->setFrame(false);
}

void MainViewController::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    if (!emailEdit)
        return;
    viewDidAppear();
    if (!window()->focusWidget())
        nextToUse().setFocus();
}

bool MainViewController::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == rememberText && event->type() == QEvent::MouseButtonRelease)
        rememberCheck->click();
    if (watched == rememberCheck && event->type() == QEvent::KeyPress) {
        const int key = static_cast<QKeyEvent *>(event)->key();
        if (key == Qt::Key_Return || key == Qt::Key_Enter)
            rememberCheck->click();
    }
    return QWidget::eventFilter(watched, event);
}

QWidget &MainViewController::nextToUse() const
{
    if (emailEdit->text().isEmpty())
        return *emailEdit;
    if (passwordEdit->text().isEmpty())
        return *passwordEdit;
    return *connectButton;
}

void MainViewController::onConnectButtonClick()
{
    if (requestUnderWay_)
        return;
    if (emailEdit->text().isEmpty())
        return refuse(*emailEdit, u"Email should not be empty!"_s);
    if (passwordEdit->text().isEmpty())
        return refuse(*passwordEdit, u"Password should not be empty!"_s);

    OpenVPNService &service = OpenVPNService::shared();
    if (ConnectionState::classOf(service.state()) != ConnectionState::Class::Stopped)
        return service.stopOpenVPN();

    const QString email = emailEdit->text();
    const QString password = passwordEdit->text();
    showConnecting();
    requestUnderWay_ = true;
    // The log tells which step a click reached. Why a request failed is shown in an alert alone.
    SystemLog::write(u"Signing in"_s);
    AccountClient::signIn(email, password, [self = QPointer(this), email, password](const AccountAnswer &answer) {
        if (self)
            self->onSignInAnswer(answer, email, password);
    });
}

void MainViewController::onSignInAnswer(const AccountAnswer &answer, const QString &email, const QString &password)
{
    using Kind = AccountAnswer::Kind;
    if (answer.kind() == Kind::rejected || answer.kind() == Kind::networkFailure)
        return endSequence(answer);
    remember(email, password);
    if (answer.kind() == Kind::unreadable)
        return endSequence(answer);

    const auto token = AccountClient::accessToken(answer.document());
    if (!token) {
        SystemLog::write(u"No access_token in the sign-in answer"_s);
        return endSequence(answer);
    }
    SystemLog::write(u"Signed in"_s);
    AccountClient::fetchProfile(*token, [self = QPointer(this)](const AccountAnswer &profileAnswer) {
        if (self)
            self->onProfileAnswer(profileAnswer);
    });
}

void MainViewController::onProfileAnswer(const AccountAnswer &answer)
{
    if (answer.kind() != AccountAnswer::Kind::success)
        return endSequence(answer);
    profile = answer.document();
    const auto configuration = AccountClient::configuration(profile);
    if (!configuration) {
        SystemLog::write(u"No config in the profile answer"_s);
        return endSequence(answer);
    }
    SystemLog::write(u"Profile received"_s);
    requestUnderWay_ = false;
    AccountClient::writeConfiguration(*configuration);
    AccountClient::startTunnel(emailEdit->text(), passwordEdit->text());
}

void MainViewController::remember(const QString &email, const QString &password) const
{
    if (rememberCheck->checkState() == Qt::Checked)
        UserDefaults::setStrings({{emailKey, email}, {passwordKey, password}});
    else
        UserDefaults::removeKeys({emailKey, passwordKey});
}

void MainViewController::endSequence(const AccountAnswer &answer)
{
    requestUnderWay_ = false;
    showStopped();
    if (answer.kind() == AccountAnswer::Kind::rejected)
        refuse(*passwordEdit, answer.message());
    else
        showAlert(answer.kind() == AccountAnswer::Kind::success ? u"Unknown error"_s : answer.message());
}

void MainViewController::refuse(TextField &field, const QString &message)
{
    field.setFocus(); // the person goes on typing there when the alert is closed
    field.selectAll();
    showAlert(message);
}

void MainViewController::openVPNStateDidChange() const
{
    const QString state = OpenVPNService::shared().state();
    SystemLog::write(state);
    switch (ConnectionState::classOf(state)) {
    case ConnectionState::Class::Connecting: return showConnecting();
    case ConnectionState::Class::Connected: return showConnected();
    case ConnectionState::Class::Stopped: return showStopped();
    case ConnectionState::Class::Unknown: return;
    }
}

void MainViewController::showStopped() const
{
    showLook({u"Conectar"_s, u"bg_button"_s, Theme::grey, true});
}

void MainViewController::showConnecting() const
{
    showLook({u"Conectando..."_s, u"bg_button"_s, Theme::grey, false});
}

void MainViewController::showConnected() const
{
    showLook({u"Desconectar"_s, u"bg_button_green"_s, Theme::white, false});
}

void MainViewController::showLook(const Look &look) const
{
    Styling::setColoredTitle(*connectButton, look.title, look.titleColor);
    connectButton->setIcon(Theme::imageNamed(look.image));
    if (appDelegate && appDelegate->connectItem)
        appDelegate->connectItem->setText(look.title);
    emailEdit->setEnabled(look.enabled);
    passwordEdit->setEnabled(look.enabled);
    rememberCheck->setEnabled(look.enabled);
    QPalette palette = rememberText->palette();
    palette.setColor(QPalette::WindowText, look.enabled ? Theme::white : Theme::grey);
    rememberText->setPalette(palette);
}

void MainViewController::showAlert(const QString &message)
{
    waitingAlerts_.append(message);
    if (!alert_)
        showNextAlert();
}

void MainViewController::showNextAlert()
{
    if (waitingAlerts_.isEmpty())
        return;
    QWidget *const owner = appDelegate ? appDelegate->window.get() : nullptr;
    if (owner && (owner->isHidden() || owner->isMinimized()))
        appDelegate->applicationShouldHandleReopen(false);
    auto *const alert = new AlertSheet(waitingAlerts_.takeFirst(), owner);
    // Not `finished`: the next sheet must not open while this one still closes.
    connect(alert, &QObject::destroyed, this, &MainViewController::showNextAlert);
    alert_ = alert;
    alert->open();
}

void MainViewController::onSignUpButtonClick()
{
    QDesktopServices::openUrl(QUrl(website + u"/precios/"_s));
}

void MainViewController::onHelpButtonClick()
{
    QDesktopServices::openUrl(QUrl(website + u"/soporte/"_s));
}
