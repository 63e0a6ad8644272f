// SPDX-License-Identifier: MIT
#include "authorization.h"
#include "captured_log.h"
#include "helper_connection.h"
#include "private_bus.h"
#include "scripted_authority.h"
#include "wait_for.h"

#include <QTimer>

#include <atomic>
#include <gmock/gmock.h>
#include <thread>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

// The bus library gives an answer 25 seconds where nothing else is said.
TEST(Timeouts, NeitherAReplyNorAPersonsPasswordMayTakeOnlyTwentyFiveSeconds)
{
    PrivateBus bus;
    ASSERT_TRUE(bus.start());
    bus.activate(u"com.corvale.macos.helper"_s, {QStringLiteral(SCRIPTED_HELPER), u"1.0"_s});
    ScriptedAuthority authority;
    authority.answer = ScriptedAuthority::Answer::Hold;
    auto authoritysBus = QDBusConnection::connectToBus(QDBusConnection::SystemBus, u"authority"_s);
    ASSERT_TRUE(authority.offer(authoritysBus));

    std::atomic<int> status = 0;
    HelperConnection connection;
    connection.resume();
    connection
        .remoteObjectProxyWithErrorHandler([&](const MessageError &error) {
            ADD_FAILURE() << error.name.toStdString();
            status = -1;
        })
        ->runOpenVPNWithConfig(u"reply late"_s, u"26000"_s, {}, [&](qint32 given) { status = given; });
    std::atomic<Authorization::Status> right = Authorization::internal;
    std::jthread asking(
        [&] { right = Authorization::AuthorizationCreate({{"an.action"}}, Authorization::InteractionAllowed); });
    ASSERT_TRUE(waitFor([&] { return status != 0; }, 40s));
    EXPECT_EQ(status, 5);
    ASSERT_FALSE(authority.held.isEmpty());
    authoritysBus.send(authority.held.first().createReply(ScriptedAuthority::verdict(true)));
    asking.join();
    EXPECT_EQ(right, Authorization::success);
    HelperConnection::finish();
}
