// SPDX-License-Identifier: MIT
#include "captured_log.h"
#include "https_server.h"
#include "openvpn_service.h"
#include "text_field.h"
#include "title_button.h"
#include "ui_fixture.h"
#include "user_defaults.h"
#include "wait_for.h"

#include <QCheckBox>
#include <QTcpServer>
#include <QTcpSocket>

#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

using namespace Qt::StringLiterals;
using nlohmann::json;
using testing::HasSubstr;
using Kind = AccountAnswer::Kind;

namespace {

/// OpenVPN's end of the management interface, in a thread of its own: the start of the tunnel blocks the main one.
class ManagementPeer {
public:
    ManagementPeer()
    {
        std::atomic_bool listening = false;
        thread_ = std::jthread([this, &listening](const std::stop_token &stop) {
            QTcpServer server;
            ASSERT_TRUE(server.listen(QHostAddress::LocalHost, 1337)) << server.errorString().toStdString();
            listening = true;
            QTcpSocket *client = nullptr;
            while (!stop.stop_requested())
                if (!client) {
                    server.waitForNewConnection(10);
                    client = server.nextPendingConnection();
                } else if (client->waitForReadyRead(10)) {
                    const std::scoped_lock lock(guard_);
                    received_ += client->readAll();
                }
        });
        EXPECT_TRUE(waitFor([&listening] { return listening.load(); }));
    }

    bool got(const QByteArray &text) const
    {
        const std::scoped_lock lock(guard_);
        return received_.contains(text);
    }

private:
    mutable std::mutex guard_; ///< of `received_`
    QByteArray received_;
    std::jthread thread_;
};

class SequenceTest : public UiTest {
protected:
    SequenceTest()
    {
        launch();
        type(u"ana@b.example"_s, u"s3cret ñ"_s);
    }

    static QString remembered()
    {
        return UserDefaults::stringForKey(u"email"_s).value_or(u"-"_s) + u" "_s +
               UserDefaults::stringForKey(u"password"_s).value_or(u"-"_s);
    }
};

/// What the log tells of the account service, without the helper's lines, which come from another thread.
std::string steps(const CapturedLog &log)
{
    QByteArray found;
    for (const QByteArray &line : log.text().split('\n'))
        if (line.startsWith("Sign") || line.startsWith("Profile") || line.startsWith("No "))
            found += line + '\n';
    return found.toStdString();
}

AccountAnswer answer(Kind kind, const char *document = nullptr)
{
    return {kind, document ? std::make_shared<const json>(json::parse(document)) : nullptr};
}

} // namespace

TEST_F(SequenceTest, AClickSignsInFetchesTheProfileAndHandsBothToOpenVPN)
{
    const HttpsServer service(
        [](const QByteArray &request) {
            return HttpsServer::Reply{request.startsWith("POST ") ? response("200 OK", R"({"access_token": "t0ken"})")
                                                                  : response("200 OK", R"({"config": "client\n"})")};
        },
        "good", 443);
    const ManagementPeer openvpn;
    const CapturedLog log;
    form().rememberCheck->setChecked(true);

    click(*form().connectButton);
    click(*form().connectButton); // in vain: one request is under way
    EXPECT_EQ(form().connectButton->text(), u"Conectando..."_s);
    ASSERT_TRUE(waitFor([&] { return openvpn.got("password 'Auth' s3cret ñ\n"); }));

    EXPECT_TRUE(openvpn.got("username 'Auth' ana@b.example\n"));
    ASSERT_EQ(service.requests().size(), 2);
    EXPECT_THAT(service.requests()[0].toStdString(), HasSubstr(R"("email":"ana@b.example")"));
    EXPECT_THAT(service.requests()[1].toStdString(), HasSubstr("Bearer t0ken"));
    EXPECT_EQ(*form().profile, json({{"config", "client\n"}}));
    EXPECT_EQ(remembered(), u"ana@b.example s3cret ñ"_s);
    EXPECT_EQ(steps(log), "Signing in\nSigned in\nProfile received\n");

    // From every state that is not a stopped one, a click ends the tunnel, and the look waits for OpenVPN's word.
    int stops = 0;
    for (const auto &state : {u"WAIT"_s, u"CONNECTED"_s, u"SOMETHING_NEW"_s}) {
        announce(state);
        const QString title = form().connectButton->text();
        stops % 2 == 0 ? click(*form().connectButton) : delegate_->connectItem->trigger();
        ++stops;
        EXPECT_TRUE(waitFor([&] { return openvpn.got(QByteArray("signal SIGINT\n").repeated(stops)); }));
        EXPECT_EQ(form().connectButton->text(), title);
    }
}

TEST_F(SequenceTest, WithoutANetworkTheFormIsFreeAgain)
{
    UserDefaults::setStrings({{u"email"_s, u"kept"_s}, {u"password"_s, u"kept"_s}});
    type(u" "_s, u" "_s);
    for (int round = 0; round < 2; ++round) {
        click(*form().connectButton);
        EXPECT_FALSE(form().emailEdit->isEnabled());
        EXPECT_EQ(nextAlert(), u"Network connection failed"_s);
        EXPECT_TRUE(form().emailEdit->isEnabled());
        EXPECT_EQ(form().connectButton->text(), u"Conectar"_s);
    }
    EXPECT_EQ(remembered(), u"kept kept"_s);
}

TEST_F(SequenceTest, EveryAnswerThatEndsTheSequenceSaysWhyAndFreesTheForm)
{
    const QString rejected = u"Email o Contraseña inválidos"_s;
    const QString network = u"Network connection failed"_s;
    const QString unknown = u"Unknown error"_s;
    const QString old = u"old old"_s;
    struct Row {
        bool signIn;
        AccountAnswer answer;
        bool check;
        QString alert;
        QString remembered;
        const char *log = "";
    };
    const char *const noToken = "No access_token in the sign-in answer\n";
    const char *const noConfiguration = "No config in the profile answer\n";
    const Row rows[] = {
        {true, answer(Kind::rejected), true, rejected, old},
        {true, answer(Kind::networkFailure), false, network, old},
        {true, answer(Kind::unreadable), true, unknown, u"sent typed"_s},
        {true, answer(Kind::unreadable), false, unknown, u"- -"_s},
        {true, answer(Kind::success, R"({})"), true, unknown, u"sent typed"_s, noToken},
        {true, answer(Kind::success, R"({"access_token": 7})"), false, unknown, u"- -"_s, noToken},
        {true, answer(Kind::success, R"(["access_token"])"), false, unknown, u"- -"_s, noToken},
        {false, answer(Kind::rejected), true, rejected, old},
        {false, answer(Kind::networkFailure), true, network, old},
        {false, answer(Kind::unreadable), false, unknown, old},
        {false, answer(Kind::success, R"({"config": null})"), false, unknown, old, noConfiguration},
        {false, answer(Kind::success, R"([])"), false, unknown, old, noConfiguration},
    };
    OpenVPNService::shared().config.reset();
    for (const Row &row : rows) {
        SCOPED_TRACE(&row - rows);
        UserDefaults::setStrings({{u"email"_s, u"old"_s}, {u"password"_s, u"old"_s}});
        form().rememberCheck->setChecked(row.check);
        form().showConnecting();
        const CapturedLog log;
        row.signIn ? form().onSignInAnswer(row.answer, u"sent"_s, u"typed"_s) : form().onProfileAnswer(row.answer);
        EXPECT_EQ(nextAlert(), row.alert);
        EXPECT_EQ(steps(log), row.log);
        EXPECT_EQ(form().connectButton->text(), u"Conectar"_s);
        EXPECT_TRUE(form().emailEdit->isEnabled());
        EXPECT_EQ(form().passwordEdit->selectedText().isEmpty(), row.alert != rejected);
        form().emailEdit->setFocus();
        form().passwordEdit->deselect();
        EXPECT_EQ(remembered(), row.remembered);
    }
    EXPECT_FALSE(OpenVPNService::shared().config) << "a tunnel was started";
}
