// SPDX-License-Identifier: MIT
#include "configuration_reader.h"
#include "configuration_writer.h"
#include "files.h"
#include "remote_addresses.h"

#include <QProcess>
#include <QTemporaryDir>

#include <gmock/gmock.h>

using namespace Qt::StringLiterals;

namespace {

const QByteArray staticKey = "-----BEGIN OpenVPN Static key V1-----\n"_ba +
                             QByteArray("00112233445566778899aabbccddeeff\n").repeated(16) +
                             "-----END OpenVPN Static key V1-----\n";

QByteArray pem(const QByteArray &label, const QByteArray &content = "TUlJQg==")
{
    return "-----BEGIN " + label + "-----\n" + content + "\n-----END " + label + "-----\n";
}

QByteArray block(const QByteArray &name, const QByteArray &body)
{
    return '<' + name + ">\n" + body + "</" + name + ">\n";
}

QByteArray line(int number)
{
    return "Line " + QByteArray::number(number) + " of the configuration ";
}

/// The canonical text and what it leaves out, or the refusal's sentence.
QByteArray outcome(const QByteArray &bytes)
{
    const auto read = readConfiguration(bytes);
    if (!read)
        return read.error().code == ErrorCode::ConfigRejected ? read.error().detail : "another error"_ba;
    QByteArray text = canonicalConfiguration(read->directives);
    for (const Directive &each : read->dropped)
        text += "without " + each.name + " of line " + QByteArray::number(each.line) + '\n';
    return text;
}

/// What OpenVPN says about the file at `path`, as `filter` lets it through. It lists its settings, then ends, since it
/// cannot make the socket.
std::string readByOpenVPN(const QString &path, const QString &filter)
{
    QProcess shell;
    shell.start(u"sh"_s,
                {u"-c"_s,
                 u"/usr/sbin/openvpn --ignore-unknown-option block-outside-dns register-dns tap-sleep ip-win32 "
                 "--config \"$0\" --verb 4 --mute 0 --suppress-timestamps "
                 "--management /nonexistent/socket unix 2>&1 | "_s +
                     filter,
                 path});
    EXPECT_TRUE(shell.waitForFinished());
    return shell.readAll().toStdString();
}

} // namespace

TEST(HostileConfiguration, IsRefusedForWhatItHides)
{
    struct Row {
        QByteArray cause;
        int line;
        QByteArrayList texts;
    };
    const QByteArray ca = pem("CERTIFICATE");
    const QByteArray openCa = "<ca>\n" + ca;
    const QByteArray remote = "remote a.example\n";
    const QByteArray no = "has a directive that is not allowed: ";
    const QByteArray unknown = "begins an inline block that is not allowed: ";
    const QByteArray nested = "begins a block inside a connection block: ";
    const QByteArray wrong = "ends a block whose contents do not belong there: ";
    const Row rows[] = {
        // Bytes that hide something from one reader and show it to another
        {"holds a control byte", 1, {"# harmless\0up /tmp/x\n"_ba, "# harmless\rup /tmp/x\n", "client\r\r\n"}},
        {"holds a control byte", 1, {"client\vup\n", "# \x1b[2J\n", "client\x7f\n"}},
        {"holds a control byte", 2, {"client\n# \0\nup /tmp/x\n"_ba}},
        {"is longer than 254 bytes", 1, {"#" + QByteArray(255, ' ') + "up x\n", QByteArray(254, ' ') + "\r\nclient\n"}},
        {"is longer than 254 bytes", 2, {"<ca>\n" + QByteArray(254, 'A') + "</ca>\nup /tmp/x\n"}},
        {"holds a byte that is not ASCII", 1, {"remote b\xc3\xbc.example\n"}},
        {"holds a byte that is not ASCII", 2, {"client\n\xef\xbb\xbf client\n"}},
        {"holds a backslash", 1, {"remote a\\ b\n", "setenv UV_x 'a\\'\n"}},
        {"has a quote that does not end", 1, {"setenv UV_x \"a\nup /tmp/x\n", "setenv UV_x 'a\n"}},
        {"has more than 16 words", 1, {"remote-cert-ku" + QByteArray(" a0").repeated(16) + '\n'}},
        // Spellings of a directive
        {no + "up", 1, {"\"up\"/tmp/x\n", "'up'\"/tmp/x\"\n", "\xef\xbb\xbfup x\n", "--setenv \"opt\"'up' /tmp/x\n"}},
        {no + "up", 2, {"client\n --up /tmp/x\n"}},
        {no + "--client", 1, {"setenv opt --client\n", "----client\n"}},
        {"has a directive that is not allowed", 1, {"\"\"\n"}},
        {no + "client?up", 1, {"client;up /tmp/x\n"}},
        {no + "Client", 1, {"Client\n"}},
        {no + "root??6?salt?hash?19000?0?99999?", 1, {"root:$6$salt$hash:19000:0:99999:7:::"}},
        // Blocks
        {unknown + "up", 1, {"<up>\n/tmp/x\n</up>\n"}},
        {unknown + "auth-user-pass", 1, {block("auth-user-pass", "u\np\n")}},
        {unknown + "pkcs12", 1, {"<pkcs12>\n</pkcs12>\n"}},
        {"begins an inline block that is not allowed", 1, {"<>\n</>\n"}},
        {unknown + "?ca", 1, {"</ca>\n"}},
        {no + "?ca?", 1, {"<ca> x\n" + ca + "</ca>\n"}},
        {"begins a block that does not end: ca", 1, {openCa}},
        {"begins a block that does not end: connection", 1, {"<connection>\n" + remote}},
        {wrong + "ca", 2, {block("ca", "")}},
        {wrong + "ca", 3, {block("ca", "/etc/shadow\n")}},
        {wrong + "ca", 4, {block("ca", "-----BEGIN CERTIFICATE-----\nTUlJ\n")}},
        {wrong + "ca", 5, {openCa + "</ca>x\nclient\n</ca>\n", block("ca", pem("PRIVATE KEY"))}},
        {wrong + "ca", 5, {block("ca", pem("CERTIFICATE", "TUlJQg=")), block("ca", pem("CERTIFICATE", "TUlJ!Qg="))}},
        {wrong + "ca", 6, {openCa + "</cert>\n</ca>\n", block("ca", "x -----BEGIN CERTIFICATE-----\n" + ca)}},
        {no + "up", 6, {openCa + "</ca>\nup /tmp/x\n</ca>\n"}},
        {wrong + "key", 5, {block("key", pem("ENCRYPTED PRIVATE KEY")), block("key", pem("EC PARAMETERS"))}},
        {wrong + "key", 7, {block("key", pem("RSA PRIVATE KEY", "Proc-Type: 4,ENCRYPTED\n\nTUlJ"))}},
        {wrong + "key", 8, {block("key", pem("PRIVATE KEY").repeated(2))}},
        {wrong + "tls-auth",
         20,
         {block("tls-auth", QByteArray(staticKey).replace("ee", "e")),
          block("tls-auth", QByteArray(staticKey).replace("ee", "ex"))}},
        {wrong + "tls-crypt-v2", 20, {block("tls-crypt-v2", staticKey)}},
        {wrong + "peer-fingerprint", 3, {block("peer-fingerprint", "00:11\n")}},
        {no + "up", 3, {block("connection", remote + "up /tmp/x\n")}},
        {"has a directive that may not stand in a connection block: client",
         3,
         {block("connection", remote + "client\n")}},
        {nested + "tls-auth", 3, {block("connection", remote + block("tls-auth", staticKey))}},
        {nested + "ca", 2, {block("connection", "<ca>\n</connection>\nup x\n<connection>\n</ca>\n")}},
        {nested + "connection", 2, {block("connection", "--<connection>\n")}},
        {wrong + "connection", 3, {block("connection", "nobind\n")}},
    };
    for (const Row &row : rows)
        for (const QByteArray &text : row.texts)
            EXPECT_EQ(outcome(text), line(row.line) + row.cause + '.') << text.constData();
}

TEST(HostileConfiguration, MayNameNoFileNoScriptNoCodeAndNoValueThatIsNotAllowed)
{
    const QByteArray names = R"(
        plugin providers pkcs11-providers pkcs11-id engine config log log-append status writepid replay-persist ca capath
        cert key pkcs12 dh secret tls-auth tls-crypt tls-crypt-v2 crl-verify extra-certs askpass http-proxy-user-pass cd
        tls-export-cert tmp-dir client-config-dir chroot setcon up down route-up route-pre-down ipchange tls-verify echo
        tls-crypt-v2-verify learn-address client-connect client-disconnect client-crresponse auth-user-pass-verify help
        iproute dev-node management management-external-key management-hold daemon syslog mode tls-server port lladdr
        port-share ifconfig setenv-safe show-pkcs11-ids genkey mktun connection bind-dev auth-token version)";
    const QByteArray values = R"(
        auth-user-pass /etc/shadow | auth-user-pass '' | http-proxy 192.0.2.1 80 /etc/shadow | http-proxy 192.0.2.1 80 auto
        | socks-proxy 192.0.2.1 1080 /etc/shadow | setenv PATH /tmp | setenv LD_PRELOAD /tmp/x.so | setenv UV_x 'a"b'
        | setenv UV_x '' | setenv opt | setenv opt setenv opt up | pull-filter accept route-up | dev tap | dev ../../x
        | proto tcp-server | remote -x | remote a.example 0 | remote a.example 65536 | verb 5 | verb 03x | keepalive 10 | client x
        | reneg-sec 4294967297 | allow-compression yes | auth-retry interact | dhcp-option DNS $(id)
        | dhcp-option DOMAIN 'a b' | tls-cipher ../x | peer-fingerprint 00:11 | verify-x509-name )" +
                              QByteArray(201, 'x');
    for (const QByteArray &name : names.simplified().split(' '))
        EXPECT_EQ(outcome("client\n" + name + " x\n"), line(2) + "has a directive that is not allowed: " + name + '.');
    for (const QByteArray &value : values.simplified().replace(" | ", "|").split('|'))
        EXPECT_EQ(outcome("client\n" + value + '\n'),
                  line(2) + "gives a directive a value that is not allowed: " + value.split(' ').front() + '.');
}

TEST(OddConfiguration, IsRewrittenWithTheSameMeaning)
{
    const QByteArray ca = pem("CERTIFICATE");
    const QByteArray eu = pem("EC PRIVATE KEY");
    const std::pair<QByteArray, QByteArray> rows[] = {
        {"", ""},
        {"\xef\xbb\xbf--client\r\n\tdev\ttun\r\n", "client\ndev tun\n"},
        {"'dev'\"tun\"# x\nreneg-sec 2147483647\n", "dev tun\nreneg-sec 2147483647\n"},
        {"client # \\ \xc3\xbc ' \"\n;up /tmp/x", "client\n"},
        {QByteArray(249, ' ') + "float", "float\n"},
        {"setenv UV_o \"a'b c\"\nverify-x509-name '#x'name\nremote-cert-eku \"'x\"",
         "setenv UV_o \"a'b c\"\nverify-x509-name \"#x\" name\nremote-cert-eku \"'x\"\n"},
        {"client\nsetenv opt user root\n<connection>\nremote a.example\nfast-io\n</connection>\n",
         "client\n<connection>\nremote a.example\n</connection>\nwithout user of line 2\nwithout fast-io of line 5\n"},
        {"auth-nocache\nscript-security 3", "without auth-nocache of line 1\nwithout script-security of line 2\n"},
        {"--<ca> # x\n  Subject: x \\\n" + ca.trimmed().replace("\n", " \r\n  ") + "\r\n </ca>\t", block("ca", ca)},
        {block("key", pem("EC PARAMETERS") + eu), block("key", eu)},
        {block("tls-auth", "# 2048 bit\n" + staticKey), block("tls-auth", staticKey)},
        {block("connection", "# </connection>\n--remote 2001:db8::1 1194 udp6\n"),
         block("connection", "remote 2001:db8::1 1194 udp6\n")},
    };
    for (const auto &[text, expected] : rows)
        EXPECT_EQ(outcome(text), expected) << text.constData();
}

TEST(Profiles, AreReadByOpenVPNAsAreTheirCanonicalTexts)
{
    // Without those that the helper drops.
    const QString settings =
        u"sed -n '/^Current Parameter Settings:/,$p' | grep -E '^(  |Connection profiles)' | "
        "grep -vE '^ +(config|fast_io|username|groupname|connect_retry_seconds|connect_timeout|persist_tun) '"_s;
    const QTemporaryDir folder;
    const QDir profiles(QStringLiteral(CORVALE_PROFILES));
    ASSERT_FALSE(profiles.isEmpty());
    for (const QString &name : profiles.entryList(QDir::Files)) {
        SCOPED_TRACE(name.toStdString());
        const auto read = readConfiguration(contentOf(profiles.filePath(name)));
        ASSERT_TRUE(read) << read.error().detail.constData();
        const QByteArray text = canonicalConfiguration(read->directives);
        const auto again = readConfiguration(text);
        ASSERT_TRUE(again) << again.error().detail.constData();
        EXPECT_EQ(again->directives, read->directives);

        writeFile(folder.filePath(name), text);
        const std::string expected = readByOpenVPN(profiles.filePath(name), settings);
        ASSERT_GT(std::ranges::count(expected, '\n'), 100);
        EXPECT_EQ(readByOpenVPN(folder.filePath(name), settings), expected);
    }
}

TEST(RemoteAddresses, AreLookedUpBeforehandUnlessOneNameCouldKeepOpenVPNFromTheOthers)
{
    const std::pair<const char *, bool> rows[] = {
        {"remote a.example 1194 udp\nremote a.example 443 tcp\n", true},
        {"remote 192.0.2.1\n<connection>\nremote 2001:db8::1\n</connection>\n", true},
        {"remote a.example\n<connection>\nremote b.example\n</connection>\n", false},
        {"remote 192.0.2.1\nhttp-proxy b.example 80\n", false},
    };
    for (const auto &[text, beforehand] : rows) {
        const QByteArray expected = beforehand ? RemoteAddresses::beforehand : "";
        EXPECT_EQ(RemoteAddresses::lineFor(readConfiguration(text)->directives), expected) << text;
    }
}

TEST(Rules, ListOnlyWhatOpenVPNKnows)
{
    const QByteArray everyDirective = contentOf(QStringLiteral(CORVALE_SEEDS "/every_directive"));
    EXPECT_EQ(outcome(everyDirective), everyDirective);
    // OpenVPN gives up at the first line that it does not understand: that must be the one added here.
    const QTemporaryDir folder;
    writeFile(folder.filePath(u"text"_s), everyDirective + "no-such-directive\n");
    EXPECT_THAT(readByOpenVPN(folder.filePath(u"text"_s), u"grep -m 1 'Options error'"_s),
                testing::HasSubstr(": no-such-directive"));
}
