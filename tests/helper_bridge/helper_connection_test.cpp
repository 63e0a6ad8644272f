// SPDX-License-Identifier: MIT
#include "helper_connection.h"

#include "authorization.h"
#include "captured_log.h"
#include "helper_client.h"
#include "private_bus.h"
#include "scripted_authority.h"
#include "wait_for.h"

#include <QThread>

#include <gmock/gmock.h>
#include <thread>
#include <unistd.h>

using namespace Qt::StringLiterals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace {

constexpr char invalidated[] = "XPC Connection Invalidated\n";

/// What handlers were called with, in order, from whichever thread.
class Events {
public:
    void add(const std::string &event)
    {
        const std::scoped_lock lock(guard_);
        all_.push_back(event);
        if (QThread::currentThread() == QCoreApplication::instance()->thread())
            all_.emplace_back("on the main thread");
    }
    std::vector<std::string> all() const
    {
        const std::scoped_lock lock(guard_);
        return all_;
    }
    bool reach(size_t count) const
    {
        return waitFor([&] { return all().size() >= count; });
    }

private:
    mutable std::mutex guard_;
    std::vector<std::string> all_;
};

class HelperConnectionTest : public testing::Test {
protected:
    static constexpr auto name = "com.corvale.macos.helper"_L1;

    void start(const QString &version = u"1.0"_s)
    {
        ASSERT_TRUE(bus.start());
        bus.activate(name, {QStringLiteral(SCRIPTED_HELPER), u'\'' + version + u'\''});
    }

    std::shared_ptr<HelperProtocol> proxy(const std::shared_ptr<HelperConnection> &connection)
    {
        return connection->remoteObjectProxyWithErrorHandler([events = events](const MessageError &error) {
            events->add("error " + (error.name + ": "_L1 + error.text).toStdString());
        });
    }
    void askVersion(const std::shared_ptr<HelperConnection> &connection)
    {
        proxy(connection)->getVersionWithResponseHandler([events = events](const QString &version) {
            events->add("version '" + version.toStdString() + "'");
        });
    }
    void script(const std::shared_ptr<HelperConnection> &connection, const QString &action, const QString &first = {},
                const QString &second = {})
    {
        proxy(connection)->runOpenVPNWithConfig(action, first, second, [events = events](qint32 status) {
            events->add("status " + std::to_string(status));
        });
    }
    std::shared_ptr<HelperConnection> watched()
    {
        auto connection = std::make_shared<HelperConnection>();
        connection->setInvalidationHandler([events = events] { events->add("invalidated"); });
        connection->resume();
        return connection;
    }

    // Shared: the end of the test's bus is an event too, for connections that are still there.
    std::shared_ptr<Events> events = std::make_shared<Events>();
    PrivateBus bus;
};

} // namespace

TEST_F(HelperConnectionTest, whatALeavingHelperHasNotBegunIsDoneByItsSuccessor)
{
    start();
    script(watched(), u"leave"_s, PrivateBus::folder() + u"/left"_s);
    ASSERT_TRUE(events->reach(1));
    EXPECT_THAT(events->all(), ElementsAre("status 7"));
}

TEST_F(HelperConnectionTest, anInvalidationIsLoggedInEveryCaseButClearsOnlyItsOwnConnection)
{
    const CapturedLog log;
    HelperClient delegate;
    start();
    const auto replaced = delegate.helperConnection();
    delegate.clearHelperConnection();
    const auto current = delegate.helperConnection();
    ASSERT_NE(current, replaced);
    script(replaced, u"error"_s, name + ".Error.NotAuthorized"_L1, u"No."_s);
    ASSERT_TRUE(log.reach(invalidated, 1));
    EXPECT_EQ(delegate.helperConnection(), current);

    delegate.clearHelperConnection();
    script(current, u"error"_s, name + ".Error.NotAuthorized"_L1, u"No."_s);
    EXPECT_TRUE(log.reach(invalidated, 2)); // the field is empty by now
}

TEST_F(HelperConnectionTest, aServiceThatNobodyCanActivateFailsTheMessageAndThenInvalidates)
{
    const QStringList noBus{u"no bus"_s};
    for (const QStringList &command : {noBus, {}, {u"/bin/false"_s}, {u"/nonexistent/helper"_s}}) {
        events = std::make_shared<Events>();
        if (command.isEmpty())
            ASSERT_TRUE(bus.start());
        else if (command != noBus)
            bus.activate(name, command);
        const auto connection = watched();
        askVersion(connection);
        ASSERT_TRUE(events->reach(2));
        proxy(connection)->killOpenVPN();
        ASSERT_TRUE(events->reach(3));
        EXPECT_THAT(events->all(), ElementsAre(StartsWith("error "), "invalidated", StartsWith("error ")))
            << command.value(0).toStdString();
    }
}

TEST_F(HelperConnectionTest, errorsArriveUnchangedAndOnlyRefusalsInvalidate)
{
    struct Row {
        QString error;
        QString text;
        bool invalidates;
    };
    const Row rows[] = {
        {name + ".Error.NotAuthorized"_L1, u"Not allowed to run “OpenVPN”."_s, true},
        {u"org.freedesktop.DBus.Error.AccessDenied"_s, u"Policy."_s, true},
        {name + ".Error.Busy"_L1, u"Another user's tunnel is running."_s, false},
        {name + ".Error.NotAuthorizedAtAll"_L1, QString(), false},
        {u"org.freedesktop.DBus.Error.NoReply"_s, u"Went away."_s, false},
    };
    start();
    for (const Row &row : rows) {
        events = std::make_shared<Events>();
        const auto connection = watched();
        script(connection, u"error"_s, row.error, row.text);
        ASSERT_TRUE(events->reach(row.invalidates ? 2 : 1));
        askVersion(connection);
        ASSERT_TRUE(events->reach(row.invalidates ? 3 : 2));
        const std::string error = "error " + (row.error + u": "_s + row.text).toStdString();
        if (row.invalidates)
            EXPECT_THAT(events->all(), ElementsAre(error, "invalidated", error));
        else
            EXPECT_THAT(events->all(), ElementsAre(error, "version '1.0'"));
    }
}

TEST_F(HelperConnectionTest, theEndOfTheBusFailsEveryPendingMessageAndInvalidatesOnce)
{
    start();
    const auto connection = watched();
    script(connection, u"hold"_s);
    script(connection, u"hold"_s);
    const auto idle = watched();
    askVersion(idle);
    ASSERT_TRUE(events->reach(1));
    bus.kill();
    ASSERT_TRUE(events->reach(5));
    askVersion(connection);
    ASSERT_TRUE(events->reach(6));
    EXPECT_THAT(events->all(),
                UnorderedElementsAre("version '1.0'", StartsWith("error "), StartsWith("error "), "invalidated",
                                     "invalidated", StartsWith("error org.freedesktop.DBus.Error.Disconnected: ")));
}

TEST_F(HelperConnectionTest, aReplyThatCannotBeReadIsAnErrorAndAnEmptyVersionIsAVersion)
{
    start(QString());
    const auto connection = watched();
    script(connection, u"reply text"_s, u"0"_s);
    script(connection, u"reply"_s, u"-7"_s);
    askVersion(connection);
    ASSERT_TRUE(events->reach(3));
    EXPECT_THAT(events->all(), ElementsAre(HasSubstr("InvalidSignature"), "status -7", "version ''"));
}

// The bus library gives an answer 25 seconds where nothing else is said.
TEST_F(HelperConnectionTest, neitherAReplyNorAPersonsPasswordMayTakeOnlyTwentyFiveSeconds)
{
    start();
    ScriptedAuthority authority;
    authority.answer = ScriptedAuthority::Answer::Hold;
    auto authoritysBus = QDBusConnection::connectToBus(QDBusConnection::SystemBus, u"authority"_s);
    ASSERT_TRUE(authority.offer(authoritysBus));
    script(watched(), u"reply late"_s, u"26000"_s);
    std::atomic<Authorization::Status> right = Authorization::internal;
    std::jthread asking(
        [&] { right = Authorization::AuthorizationCreate({{"an.action"}}, Authorization::InteractionAllowed); });
    EXPECT_TRUE(waitFor([&] { return !events->all().empty(); }, std::chrono::seconds(40)));
    EXPECT_THAT(events->all(), ElementsAre("status 5"));
    ASSERT_FALSE(authority.held.isEmpty());
    authoritysBus.send(authority.held.first().createReply(ScriptedAuthority::verdict(true)));
    asking.join();
    EXPECT_EQ(right, Authorization::success);
    QDBusConnection::disconnectFromBus(u"authority"_s);
}

TEST_F(HelperConnectionTest, aConnectionReleasedOnItsOwnThreadStillDeliversWhatIsUnderWay)
{
    start();
    auto connection = watched();
    proxy(connection)->getVersionWithResponseHandler([this, connection](const QString &) mutable {
        script(connection, u"reply"_s, u"5"_s);
        connection.reset(); // the last handle: the main thread has let go of its own by the time anything answers
        events->add("released");
    });
    connection.reset();
    ASSERT_TRUE(events->reach(2));
    EXPECT_THAT(events->all(), ElementsAre("released", "status 5"));
}

TEST_F(HelperConnectionTest, theEndOfTheProcessEndsAConnectionWhoseReplyNeverComes)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto endWithAPendingReply = [this] {
        start();
        const auto connection = watched();
        script(connection, u"hold"_s);
        askVersion(connection);
        const bool sent = events->reach(1);
        HelperConnection::finish();
        bus.kill();
        std::exit(sent && events->all().size() == 1 ? 0 : 1);
    };
    EXPECT_EXIT(endWithAPendingReply(), testing::ExitedWithCode(0), "");
}
