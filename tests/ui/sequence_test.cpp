// SPDX-License-Identifier: MIT
#include "captured_log.h"
#include "https_server.h"
#include "openvpn_service.h"
#include "tcp_peer.h"
#include "text_field.h"
#include "title_button.h"
#include "ui_fixture.h"
#include "user_defaults.h"

#include <QCheckBox>

using namespace Qt::StringLiterals;
using testing::HasSubstr;

namespace {

class SequenceTest : public UiTest {
protected:
    SequenceTest()
    {
        launch();
        type(u"ana@b.example"_s, u"s3cret ñ"_s);
    }

    static QString remembered()
    {
        return UserDefaults::stringForKey(u"email"_s).value_or(u"-"_s) + u' ' +
               UserDefaults::stringForKey(u"password"_s).value_or(u"-"_s);
    }
};

/// The account service, with one reply to every sign-in and one to every other request.
HttpsServer::Answer accountService(const QByteArray &signIn, const QByteArray &profile)
{
    return
        [=](const QByteArray &request) { return HttpsServer::Reply{request.startsWith("POST ") ? signIn : profile}; };
}

QByteArray accepted(const QByteArray &body)
{
    return response("200 OK", body);
}

const QByteArray signedIn = accepted(R"({"access_token": "t0ken"})");

} // namespace

TEST_F(SequenceTest, AClickConnectsAndOneInEveryStateThatIsNotAStoppedOneEndsTheTunnel)
{
    const HttpsServer service(accountService(signedIn, accepted(R"({"config": "client\n"})")), "good", 443);
    const TCPPeer openvpn(1337);
    const auto gets = [&](const QByteArray &text) {
        return waitFor([&] { return openvpn.received().contains(text); });
    };

    click(*form().connectButton);
    EXPECT_EQ(form().connectButton->text(), u"Conectando..."_s);
    EXPECT_TRUE(gets("username 'Auth' ana@b.example\npassword 'Auth' s3cret ñ\n"));
    // The look follows from what OpenVPN reports.
    for (int stops = 1; const auto &state : {u"WAIT"_s, u"CONNECTED"_s, u"SOMETHING_NEW"_s}) {
        announce(state);
        const QString title = form().connectButton->text();
        stops % 2 == 0 ? click(*form().connectButton) : delegate_->connectItem->trigger();
        EXPECT_TRUE(gets(QByteArray("signal SIGINT\n").repeated(stops++)));
        EXPECT_EQ(form().connectButton->text(), title);
    }
    EXPECT_EQ(service.requests().size(), 2);
}

TEST_F(SequenceTest, EveryAnswerThatEndsTheSequenceSaysWhyAndFreesTheForm)
{
    const QString rejected = u"Email o Contraseña inválidos"_s;
    const QString network = u"Network connection failed"_s;
    const QString unknown = u"Unknown error"_s;
    const QString old = u"old old"_s;
    const QString typed = u"ana@b.example s3cret ñ"_s;
    const QString none = u"- -"_s;
    const QByteArray unauthorized = response("401 No", "");
    const struct {
        QByteArray signIn;
        QByteArray profile; ///< empty where none may be asked for
        bool check;
        QString alert;
        QString remembered;
        const char *log;
    } rows[] = {
        {unauthorized, "", true, rejected, old, "Signing in"},
        {"", "", false, network, old, "Signing in"},
        {accepted("1"), "", true, unknown, typed, "Signing in"},
        {accepted("1"), "", false, unknown, none, "Signing in"},
        {accepted("{}"), "", false, unknown, none, "No access_token in the sign-in answer"},
        {signedIn, unauthorized, true, rejected, typed, "Signed in"},
        {signedIn, "nothing", false, network, none, "Signed in"},
        {signedIn, accepted("1"), false, unknown, none, "Signed in"},
        {signedIn, accepted("{}"), true, unknown, typed, "No config in the profile answer"},
    };
    OpenVPNService::shared().config.reset();
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        const HttpsServer service(accountService(row.signIn, row.profile), "good", 443);
        const CapturedLog log;
        UserDefaults::setStrings({{u"email"_s, u"old"_s}, {u"password"_s, u"old"_s}});
        form().rememberCheck->setChecked(row.check);
        form().passwordEdit->deselect();
        click(*form().connectButton);
        delegate_->connectItem->trigger(); // ignored while a request is under way
        EXPECT_FALSE(form().emailEdit->isEnabled());

        EXPECT_EQ(nextAlert(), row.alert);
        EXPECT_EQ(form().connectButton->text(), u"Conectar"_s);
        EXPECT_TRUE(form().emailEdit->isEnabled());
        EXPECT_EQ(form().passwordEdit->hasSelectedText(), row.alert == rejected);
        EXPECT_EQ(remembered(), row.remembered);
        EXPECT_EQ(service.requests().size(), row.profile.isEmpty() ? 1 : 2);
        EXPECT_THAT(log.text().toStdString(), HasSubstr(row.log));
        EXPECT_FALSE(log.text().contains("s3cret"));
    }
    EXPECT_FALSE(OpenVPNService::shared().config) << "a tunnel was started";
}
