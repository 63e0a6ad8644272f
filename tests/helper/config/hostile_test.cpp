// SPDX-License-Identifier: MIT
#include "configuration_reader.h"
#include "configuration_writer.h"

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

/// The canonical text, or "refused".
QByteArray canonical(const QByteArray &bytes)
{
    const auto result = readConfiguration(bytes);
    const auto *const configuration = std::get_if<Configuration>(&result);
    return configuration ? canonicalConfiguration(configuration->directives) : "refused"_ba;
}

} // namespace

TEST(HostileConfiguration, IsRefusedForWhatItHides)
{
    struct Row {
        QByteArray text;
        Reason reason;
        const char *detail;
        int line;
    };
    const QByteArray ca = pem("CERTIFICATE");
    const Row rows[] = {
        // Bytes that hide something from one reader and show it to another
        {"# harmless\0up /tmp/x\n"_ba, Reason::ControlByte, "", 1},
        {"client\n# \0\nup /tmp/x\n"_ba, Reason::ControlByte, "", 2},
        {"# harmless\rup /tmp/x\n", Reason::ControlByte, "", 1},
        {"client\r\r\n", Reason::ControlByte, "", 1},
        {"client\vup\n", Reason::ControlByte, "", 1},
        {"# \x1b[2J\n", Reason::ControlByte, "", 1},
        {"client\x7f\n", Reason::ControlByte, "", 1},
        {"#" + QByteArray(255, ' ') + "up /tmp/x\n", Reason::LineTooLong, "", 1},
        {QByteArray(254, ' ') + "\r\nclient\n", Reason::LineTooLong, "", 1},
        {"remote b\xc3\xbc"
         "cher.example\n",
         Reason::NotAscii, "", 1},
        {"client\n\xef\xbb\xbf"
         "client\n",
         Reason::NotAscii, "", 2},
        {"remote a\\ b\n", Reason::Backslash, "", 1},
        {"setenv UV_x 'a\\'\n", Reason::Backslash, "", 1},
        {"setenv UV_x \"a\nup /tmp/x\n", Reason::UnclosedQuote, "", 1},
        {"setenv UV_x 'a\n", Reason::UnclosedQuote, "", 1},
        {"remote-cert-ku" + QByteArray(" a0").repeated(16) + '\n', Reason::TooManyWords, "", 1},
        // Spellings of a directive
        {"\"up\"/tmp/x\n", Reason::NotAllowed, "up", 1},
        {"'up'\"/tmp/x\"\n", Reason::NotAllowed, "up", 1},
        {"client\n --up /tmp/x\n", Reason::NotAllowed, "up", 2},
        {"\xef\xbb\xbfup /tmp/x\n", Reason::NotAllowed, "up", 1},
        {"setenv opt up /tmp/x\n", Reason::NotAllowed, "up", 1},
        {"--setenv \"opt\"'up' /tmp/x\n", Reason::NotAllowed, "up", 1},
        {"setenv opt --client\n", Reason::NotAllowed, "--client", 1},
        {"----client\n", Reason::NotAllowed, "--client", 1},
        {"\"\"\n", Reason::NotAllowed, "", 1},
        {"client;up /tmp/x\n", Reason::NotAllowed, "client?up", 1},
        {"Client\n", Reason::NotAllowed, "Client", 1},
        {"root:$6$salt$hash:19000:0:99999:7:::\n", Reason::NotAllowed, "root??6?salt?hash?19000?0?99999?", 1},
        // Values
        {"auth-user-pass /etc/shadow\n", Reason::BadValue, "auth-user-pass", 1},
        {"auth-user-pass ''\n", Reason::BadValue, "auth-user-pass", 1},
        {"http-proxy 192.0.2.1 80 /etc/shadow\n", Reason::BadValue, "http-proxy", 1},
        {"http-proxy 192.0.2.1 80 auto\n", Reason::BadValue, "http-proxy", 1},
        {"socks-proxy 192.0.2.1 1080 /etc/shadow\n", Reason::BadValue, "socks-proxy", 1},
        {"setenv PATH /tmp\n", Reason::BadValue, "setenv", 1},
        {"setenv LD_PRELOAD /tmp/x.so\n", Reason::BadValue, "setenv", 1},
        {"setenv opt\n", Reason::BadValue, "setenv", 1},
        {"setenv opt setenv opt up\n", Reason::BadValue, "setenv", 1},
        {"setenv UV_x 'a\"b'\n", Reason::BadValue, "setenv", 1},
        {"pull-filter accept route-up\n", Reason::BadValue, "pull-filter", 1},
        {"dev tap\n", Reason::BadValue, "dev", 1},
        {"dev ../../x\n", Reason::BadValue, "dev", 1},
        {"proto tcp-server\n", Reason::BadValue, "proto", 1},
        {"remote -x\n", Reason::BadValue, "remote", 1},
        {"port 53\n", Reason::NotAllowed, "port", 1}, // root may bind where the caller may not
        {"remote a.example 0\n", Reason::BadValue, "remote", 1},
        {"remote a.example 65536\n", Reason::BadValue, "remote", 1},
        {"verb 5\n", Reason::BadValue, "verb", 1},
        {"verb 03x\n", Reason::BadValue, "verb", 1},
        {"keepalive 10\n", Reason::BadValue, "keepalive", 1},
        {"reneg-sec 4294967297\n", Reason::BadValue, "reneg-sec", 1},
        {"client x\n", Reason::BadValue, "client", 1},
        {"allow-compression yes\n", Reason::BadValue, "allow-compression", 1},
        {"auth-retry interact\n", Reason::BadValue, "auth-retry", 1},
        {"dhcp-option DNS $(id)\n", Reason::BadValue, "dhcp-option", 1},
        {"dhcp-option DOMAIN 'a b'\n", Reason::BadValue, "dhcp-option", 1},
        {"tls-cipher ../x\n", Reason::BadValue, "tls-cipher", 1},
        {"peer-fingerprint 00:11\n", Reason::BadValue, "peer-fingerprint", 1},
        {"verify-x509-name " + QByteArray(201, 'x') + '\n', Reason::BadValue, "verify-x509-name", 1},
        // Blocks
        {"<up>\n/tmp/x\n</up>\n", Reason::UnknownBlock, "up", 1},
        {"<auth-user-pass>\nu\np\n</auth-user-pass>\n", Reason::UnknownBlock, "auth-user-pass", 1},
        {"<pkcs12>\n</pkcs12>\n", Reason::UnknownBlock, "pkcs12", 1},
        {"<>\n</>\n", Reason::UnknownBlock, "", 1},
        {"<ca> x\n" + ca + "</ca>\n", Reason::NotAllowed, "?ca?", 1},
        {"</ca>\n", Reason::UnknownBlock, "?ca", 1},
        {"<ca>\n" + ca, Reason::UnclosedBlock, "ca", 1},
        {"<ca>\n" + QByteArray(254, 'A') + "</ca>\nup /tmp/x\n", Reason::LineTooLong, "", 2},
        {"<ca>\n" + ca + "</ca>x\nclient\n</ca>\n", Reason::BadBody, "ca", 5},
        {"<ca>\n" + ca + "</ca>\nup /tmp/x\n</ca>\n", Reason::NotAllowed, "up", 6},
        {"<ca>\n" + ca + "</cert>\n</ca>\n", Reason::BadBody, "ca", 6},
        {block("ca", ""), Reason::BadBody, "ca", 2},
        {block("ca", "/etc/shadow\n"), Reason::BadBody, "ca", 3},
        {block("ca", pem("PRIVATE KEY")), Reason::BadBody, "ca", 5},
        {block("ca", pem("CERTIFICATE", "TUlJQg=")), Reason::BadBody, "ca", 5},
        {block("ca", pem("CERTIFICATE", "TUlJ!Qg=")), Reason::BadBody, "ca", 5},
        {block("ca", "-----BEGIN CERTIFICATE-----\nTUlJ\n"), Reason::BadBody, "ca", 4},
        {block("ca", "x -----BEGIN CERTIFICATE-----\n" + ca), Reason::BadBody, "ca", 6},
        {block("key", pem("ENCRYPTED PRIVATE KEY")), Reason::BadBody, "key", 5},
        {block("key", pem("RSA PRIVATE KEY", "Proc-Type: 4,ENCRYPTED\n\nTUlJ")), Reason::BadBody, "key", 7},
        {block("key", pem("PRIVATE KEY") + pem("PRIVATE KEY")), Reason::BadBody, "key", 8},
        {block("key", pem("EC PARAMETERS")), Reason::BadBody, "key", 5},
        {block("tls-auth", QByteArray(staticKey).replace("ee", "e")), Reason::BadBody, "tls-auth", 20},
        {block("tls-crypt", QByteArray(staticKey).replace("ee", "ex")), Reason::BadBody, "tls-crypt", 20},
        {block("tls-crypt-v2", staticKey), Reason::BadBody, "tls-crypt-v2", 20},
        {block("peer-fingerprint", "00:11\n"), Reason::BadBody, "peer-fingerprint", 3},
        {block("connection", "remote a.example\nup /tmp/x\n"), Reason::NotAllowed, "up", 3},
        {block("connection", "remote a.example\nclient\n"), Reason::NotInConnection, "client", 3},
        {block("connection", "remote a.example\n" + block("tls-auth", staticKey)), Reason::NestedBlock, "tls-auth", 3},
        {block("connection", "<ca>\n</connection>\nup /tmp/x\n<connection>\n</ca>\n"), Reason::NestedBlock, "ca", 2},
        {block("connection", "--<connection>\n"), Reason::NestedBlock, "connection", 2},
        {block("connection", "nobind\n"), Reason::BadBody, "connection", 3},
        {"<connection>\nremote a.example\n", Reason::UnclosedBlock, "connection", 1},
    };
    for (const Row &row : rows) {
        const auto result = readConfiguration(row.text);
        const auto *const refusal = std::get_if<Refusal>(&result);
        ASSERT_TRUE(refusal) << row.text.constData();
        EXPECT_EQ(refusal->reason, row.reason) << row.text.constData();
        EXPECT_EQ(refusal->detail, row.detail) << row.text.constData();
        EXPECT_EQ(refusal->line, row.line) << row.text.constData();
    }
}

TEST(HostileConfiguration, MayNameNoFileNoScriptAndNoCode)
{
    const char *const lines[] = {
        "plugin /tmp/x.so",
        "providers legacy /tmp/x",
        "pkcs11-providers /tmp/x.so",
        "pkcs11-id x",
        "engine /tmp/x.so",
        "config /etc/shadow",
        "log /etc/passwd",
        "log-append /etc/passwd",
        "status /etc/passwd 1",
        "writepid /etc/passwd",
        "replay-persist /etc/passwd",
        "ca /etc/shadow",
        "ca [inline]",
        "capath /tmp",
        "cert /tmp/x",
        "key /tmp/x",
        "pkcs12 /tmp/x",
        "dh /tmp/x",
        "secret /tmp/x",
        "tls-auth /tmp/x 1",
        "tls-crypt /tmp/x",
        "tls-crypt-v2 /tmp/x",
        "crl-verify /tmp dir",
        "extra-certs /tmp/x",
        "askpass /tmp/x",
        "http-proxy-user-pass /etc/shadow",
        "tls-export-cert /tmp",
        "tmp-dir /tmp",
        "client-config-dir /tmp",
        "cd /tmp",
        "chroot /tmp",
        "setcon x",
        "up /tmp/x",
        "down /tmp/x",
        "route-up /tmp/x",
        "route-pre-down /tmp/x",
        "ipchange /tmp/x",
        "tls-verify /tmp/x",
        "tls-crypt-v2-verify /tmp/x",
        "learn-address /tmp/x",
        "client-connect /tmp/x",
        "client-disconnect /tmp/x",
        "client-crresponse /tmp/x",
        "auth-user-pass-verify /tmp/x via-env",
        "iproute /tmp/x",
        "dev-node /etc/passwd",
        "management 0.0.0.0 7505",
        "management-external-key",
        "management-hold",
        "daemon",
        "syslog",
        "mode server",
        "tls-server",
        "port-share 127.0.0.1 22 /tmp",
        "lladdr 00:11:22:33:44:55",
        "ifconfig 10.0.0.1 10.0.0.2",
        "setenv-safe x y",
        "show-pkcs11-ids /tmp/x.so",
        "genkey secret /etc/passwd",
        "mktun",
        "connection x",
        "echo x",
        "bind-dev eth0",
        "auth-token x",
        "help",
        "version",
    };
    for (const QByteArray line : lines) {
        const auto result = readConfiguration("client\n" + line + '\n');
        const auto *const refusal = std::get_if<Refusal>(&result);
        ASSERT_TRUE(refusal) << line.constData();
        EXPECT_EQ(sentence(*refusal),
                  "Line 2 of the configuration has a directive that is not allowed: " + line.split(' ').front() + '.');
    }
}

TEST(OddConfiguration, IsRewrittenWithTheSameMeaning)
{
    const QByteArray ca = pem("CERTIFICATE");
    struct Row {
        QByteArray text;
        QByteArray canonical;
    };
    const Row rows[] = {
        {"", ""},
        {"\xef\xbb\xbf"
         "client\r\n\tdev\ttun\r\n",
         "client\ndev tun\n"},
        {"--client\n'dev'\"tun\"# x\n", "client\ndev tun\n"},
        {"client # \\ \xc3\xbc ' \"\n;up /tmp/x", "client\n"},
        {QByteArray(249, ' ') + "float", "float\n"},
        {"setenv opt nobind\nsetenv UV_o ''", "refused"},
        {"setenv UV_o \"a'b c\"\nverify-x509-name '#x'name", "setenv UV_o \"a'b c\"\nverify-x509-name \"#x\" name\n"},
        {"script-security 3\nsetenv opt user root\nnice -20\nauth-nocache\n", ""},
        {"--<ca> # x\n  Subject: x \\\n" + ca.trimmed().replace("\n", " \r\n  ") + "\r\n </ca>\t", block("ca", ca)},
        {block("key", pem("EC PARAMETERS") + pem("EC PRIVATE KEY")), block("key", pem("EC PRIVATE KEY"))},
        {block("tls-auth", "# 2048 bit\n" + staticKey), block("tls-auth", staticKey)},
        {block("connection", "# </connection>\n--remote 2001:db8::1 1194 udp6\n"),
         block("connection", "remote 2001:db8::1 1194 udp6\n")},
    };
    for (const Row &row : rows)
        EXPECT_EQ(canonical(row.text), row.canonical) << row.text.constData();
}

TEST(OddConfiguration, TellsWhatItLeftOut)
{
    const auto result =
        readConfiguration("client\nuser root\n<connection>\nremote a.example\nfast-io\n</connection>\n");
    const auto dropped = std::get<Configuration>(result).dropped;
    ASSERT_EQ(dropped.size(), 2);
    EXPECT_EQ(dropped[0].name, "user");
    EXPECT_EQ(dropped[0].line, 2);
    EXPECT_EQ(dropped[1].name, "fast-io");
    EXPECT_EQ(dropped[1].line, 5);
}
