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

const QString unknownError = u"Unknown error"_s;

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
    const QColor grey = QColor::fromRgb(Styling::grey);
    fill(*this, QColor::fromRgb(Styling::background));
    fill(*emailLine, grey);
    fill(*passwordLine, grey);
    if (auto *const emblem = findChild<QLabel *>(u"emblem"_s)) {
        emblem->setAccessibleName(u"Corvale"_s);
        emblem->setPixmap(QApplication::windowIcon().pixmap(emblem->minimumSize(), devicePixelRatio()));
    }
    rememberText->setBuddy(rememberCheck);

    emailEdit->setText(UserDefaults::stringForKey(emailKey).value_or(QString()));
    passwordEdit->setText(UserDefaults::stringForKey(passwordKey).value_or(QString()));

    connectButton->setIcon(Styling::imageNamed(u"bg_button"_s));
    Styling::setColoredTitle(*connectButton, u"Conectar"_s, grey);
    signupButton->setTitle(u"Registrarme"_s, grey, Qt::AlignLeft, Styling::systemFont(Styling::smallPoints));
    helpButton->setTitle(u"Ayuda"_s, grey, Qt::AlignRight, Styling::systemFont(Styling::smallPoints));

    connect(connectButton, &TitleButton::clicked, this, &MainViewController::onConnectButtonClick);
    connect(emailEdit, &TextField::returnPressed, this, &MainViewController::onConnectButtonClick);
    connect(passwordEdit, &TextField::returnPressed, this, &MainViewController::onConnectButtonClick);
    connect(signupButton, &TitleButton::clicked, this, &MainViewController::onSignUpButtonClick);
    connect(helpButton, &TitleButton::clicked, this, &MainViewController::onHelpButtonClick);
    for (auto *const button : {connectButton.get(), signupButton.get(), helpButton.get()})
        button->setAutoDefault(true); // Return presses it, as it does in an alert
    rememberText->installEventFilter(this);
    rememberCheck->installEventFilter(this);
    hideHeadingOnSmallScreen();
    connect(&OpenVPNService::shared(), &OpenVPNService::OpenVPNStateDidChange, this,
            &MainViewController::openVPNStateDidChange);
}

void MainViewController::hideHeadingOnSmallScreen() const
{
    // The window cannot be made smaller or scrolled, and every control has to be in reach.
    constexpr int titleBar = 40;
    auto *const heading = findChild<QWidget *>(u"heading"_s);
    if (heading && sizeHint().height() + titleBar > screen()->availableGeometry().height())
        heading->hide();
}

void MainViewController::viewDidAppear() const
{
    emailEdit->setCaretColor(QColor::fromRgb(Styling::white));
    passwordEdit->setCaretColor(QColor::fromRgb(Styling::white));
    Styling::setColoredPlaceholder(*emailEdit, u"Email"_s, QColor::fromRgb(Styling::grey));
    Styling::setColoredPlaceholder(*passwordEdit, u"Contraseña"_s, QColor::fromRgb(Styling::grey));
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
    // The log tells how far a click came; of a request that failed, the alert says what the person may know.
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
        showAlert(answer.kind() == AccountAnswer::Kind::success ? unknownError : answer.message());
}

void MainViewController::refuse(TextField &field, const QString &message)
{
    field.setFocus(); // where the person goes on when the alert is closed
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
    showLook(u"Conectar"_s, u"bg_button"_s, QColor::fromRgb(Styling::grey), true, QColor::fromRgb(Styling::white));
}

void MainViewController::showConnecting() const
{
    showLocked(u"Conectando..."_s, u"bg_button"_s, QColor::fromRgb(Styling::grey));
}

void MainViewController::showConnected() const
{
    showLocked(u"Desconectar"_s, u"bg_button_green"_s, QColor::fromRgb(Styling::white));
}

void MainViewController::showLocked(const QString &title, const QString &imageName, QColor titleColor) const
{
    showLook(title, imageName, titleColor, false, QColor::fromRgb(Styling::grey));
}

void MainViewController::showLook(const QString &title, const QString &imageName, QColor titleColor, bool enabled,
                                  QColor labelColor) const
{
    Styling::setColoredTitle(*connectButton, title, titleColor);
    connectButton->setIcon(Styling::imageNamed(imageName));
    if (appDelegate && appDelegate->connectItem)
        appDelegate->connectItem->setText(title);
    emailEdit->setEnabled(enabled);
    passwordEdit->setEnabled(enabled);
    rememberCheck->setEnabled(enabled);
    QPalette palette = rememberText->palette();
    palette.setColor(QPalette::WindowText, labelColor);
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
    // Not the alert's end itself but what it leaves: the next sheet must not be opened while this one still closes.
    connect(alert, &QObject::destroyed, this, &MainViewController::showNextAlert);
    alert_ = alert;
    alert->open();
}

void MainViewController::onSignUpButtonClick()
{
    openWebPage(website + u"/precios/"_s);
}

void MainViewController::onHelpButtonClick()
{
    openWebPage(website + u"/soporte/"_s);
}

void MainViewController::openWebPage(const QString &address)
{
    QDesktopServices::openUrl(QUrl(address));
}
