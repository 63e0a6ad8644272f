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

/// The login-and-connect form: checks what is typed, runs sign-in, profile and tunnel one after the other, and shows
/// the tunnel service's state. Made by the interface file; lives as long as the application. Main thread.
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

    /// Connects the outlets and, when all of them are there, styles and fills the form and follows the tunnel's state.
    /// False, with nothing done, when the interface file lacks one. Call once.
    bool loadView();

    /// What a click on the connect button and the status menu's connect entry do: starts a connection from a stopped
    /// state, ends it in every other. Without e-mail or password it shows an alert only; while a request is under way
    /// it does nothing.
    void onConnectButtonClick();
    void onSignUpButtonClick(); ///< opens the website's price page in the browser
    void onHelpButtonClick();   ///< opens the website's support page in the browser
    void openVPNStateDidChange() const;

    /// Goes on after the sign-in request, which was sent with these two texts.
    void onSignInAnswer(const AccountAnswer &answer, const QString &email, const QString &password);
    /// Goes on after the profile request. Blocks as `OpenVPNService::startOpenVPN` does when the profile is good.
    void onProfileAnswer(const AccountAnswer &answer);

    void showStopped() const;
    void showConnecting() const;
    void showConnected() const;

    /// Opens a sheet on the main window, which is shown first where it is hidden. Returns at once. While another sheet
    /// is open the new one waits for its end.
    void showAlert(const QString &message);

    bool eventFilter(QObject *watched, QEvent *event) override;

protected:
    void showEvent(QShowEvent *event) override;

private:
    bool connectOutlets();
    void viewDidLoad();
    void hideHeadingOnSmallScreen() const;
    void viewDidAppear() const;
    void showLocked(const QString &title, const QString &imageName, QColor titleColor) const;
    void showLook(const QString &title, const QString &imageName, QColor titleColor, bool enabled,
                  QColor labelColor) const;
    void remember(const QString &email, const QString &password) const;
    /// Frees the form and says what the answer, or what it lacks, amounts to.
    void endSequence(const AccountAnswer &answer);
    void refuse(TextField &field, const QString &message);
    void showNextAlert();
    QWidget &nextToUse() const; ///< the first empty field, else the connect button
    static void openWebPage(const QString &address);

    bool requestUnderWay_ = false; ///< from a click until its sequence has ended or the tunnel is started
    QPointer<AlertSheet> alert_;
    QStringList waitingAlerts_;
};
