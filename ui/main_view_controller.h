// SPDX-License-Identifier: MIT
#pragma once

#include "account_answer.h"

#include <QColor>
#include <QPointer>
#include <QStringList>
#include <QWidget>

class AlertSheet;
class AppDelegate;
class QCheckBox;
class QLabel;
class TextField;
class TitleButton;

/// The login-and-connect form. It signs in, fetches the profile, starts the tunnel, and shows the tunnel service's
/// state. The interface file names it; it lives as long as the application. Main thread.
class MainViewController final : public QWidget {
    Q_OBJECT

public:
    explicit MainViewController(QWidget *parent = nullptr);

    QPointer<TitleButton> connectButton;
    QPointer<TextField> emailEdit;
    QPointer<QWidget> emailLine;
    QPointer<TextField> passwordEdit;
    QPointer<QWidget> passwordLine;
    QPointer<QCheckBox> rememberCheck;
    QPointer<TitleButton> signupButton;
    QPointer<QLabel> rememberText;
    QPointer<TitleButton> helpButton;

    AppDelegate *const appDelegate;  ///< the application's; outlives the form
    AccountAnswer::Document profile; ///< the last profile answer's document; null until the first

    /// Connects the outlets, styles and fills the form, and follows the tunnel's state from then on. Returns false and
    /// does nothing when the interface file lacks an outlet; one line in the system log names it. Call once.
    bool loadView();

    /// A click on the connect button or on the status menu's connect entry. Starts a connection when the tunnel is
    /// stopped, and ends it in every other state. Does nothing while a request is under way. When a field is empty it
    /// only shows an alert.
    void onConnectButtonClick();
    void onSignUpButtonClick();         ///< opens the website's price page in the browser
    void onHelpButtonClick();           ///< opens the website's support page in the browser
    void openVPNStateDidChange() const; ///< shows the look of the current state; keeps the look for an unknown one

    /// The answer to the sign-in request that was sent with these two texts. Asks for the profile, or shows an alert.
    void onSignInAnswer(const AccountAnswer &answer, const QString &email, const QString &password);
    /// The answer to the profile request. Starts the tunnel, which blocks as `OpenVPNService::startOpenVPN` does, or
    /// shows an alert.
    void onProfileAnswer(const AccountAnswer &answer);

    void showStopped() const;
    void showConnecting() const;
    void showConnected() const;

    /// Opens a sheet on the main window, and brings back a window that is hidden or minimised. Returns at once. Sheets
    /// are shown one after another.
    void showAlert(const QString &message);

    bool eventFilter(QObject *watched, QEvent *event) override;

protected:
    void showEvent(QShowEvent *event) override;

private:
    struct Look {
        QString title;
        QString image; ///< the button's
        QColor titleColor;
        bool enabled; ///< the fields and the check box; the label beside it is grey when they are not
    };

    bool connectOutlets();
    void viewDidLoad();
    void hideHeadingOnSmallScreen() const;
    void viewDidAppear() const;
    void showLook(const Look &look) const;
    void remember(const QString &email, const QString &password) const;
    /// Shows the stopped look and an alert. A success is one that lacks what was asked for.
    void endSequence(const AccountAnswer &answer);
    void refuse(TextField &field, const QString &message);
    void showNextAlert();
    QWidget &nextToUse() const; ///< the first empty field, or else the connect button

    bool requestUnderWay_ = false; ///< from a click until an alert, or until the tunnel is started
    QPointer<AlertSheet> alert_;
    QStringList waitingAlerts_;
};
