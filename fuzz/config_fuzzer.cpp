// SPDX-License-Identifier: MIT
#include "configuration_reader.h"
#include "configuration_writer.h"
#include "openvpn_model.h"

#include <algorithm>
#include <cstdlib>

using OpenVPNModel::Seen;

namespace {

void require(bool holds)
{
    if (!holds)
        std::abort();
}

QList<Seen> seen(const QList<Directive> &directives)
{
    QList<Seen> result;
    for (const Directive &each : directives)
        result << Seen{each.name, each.values, seen(each.inner)};
    return result;
}

/// Without what the reader says that it dropped, wherever that stood.
QList<Seen> without(const QList<Directive> &dropped, QList<Seen> options)
{
    const auto isDropped = [&](const Seen &option) {
        return std::ranges::find(dropped, option.name, &Directive::name) != dropped.end();
    };
    options.removeIf(isDropped);
    for (Seen &option : options)
        option.inner.removeIf(isDropped);
    return options;
}

/// Names that read, write or load files or run programs. Their stems end in '-'.
constexpr QByteArrayView forbidden[] = {
    "askpass",        "auth-user-pass-", "capath",        "cd",     "chroot",     "client-c-",
    "config",         "daemon",          "dev-node",      "dh",     "down",       "engine",
    "ipchange",       "iproute",         "learn-address", "log",    "log-append", "management",
    "management-",    "pkcs11-",         "pkcs12",        "plugin", "providers",  "replay-persist",
    "route-pre-down", "route-up",        "script-",       "secret", "status",     "syslog",
    "tls-verify",     "tls-export-",     "tmp-dir",       "up",     "user",       "writepid"};

void requireHarmless(const Seen &option)
{
    for (const QByteArrayView name : forbidden)
        require(option.name != name && !(name.endsWith('-') && option.name.startsWith(name)));
    require(option.name != "auth-user-pass" || option.values.isEmpty());
    std::ranges::for_each(option.inner, requireHarmless);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    const auto read = readConfiguration(bytes);
    if (const auto *const refusal = std::get_if<Refusal>(&read)) {
        require(refusal->detail.size() <= 32 && refusal->line > 0 && !sentence(*refusal).contains('\n'));
        return 0;
    }
    const auto &configuration = std::get<Configuration>(read);
    const auto original = OpenVPNModel::read(bytes);
    require(original && without(configuration.dropped, *original) == seen(configuration.directives));

    const QByteArray text = canonicalConfiguration(configuration.directives);
    const auto canonical = OpenVPNModel::read(text);
    require(canonical && *canonical == seen(configuration.directives));
    std::ranges::for_each(*canonical, requireHarmless);
    for (const QByteArray &line : text.split('\n'))
        require(line.size() <= 254);

    const auto again = readConfiguration(text);
    const auto *const same = std::get_if<Configuration>(&again);
    require(same && same->directives == configuration.directives && same->dropped.isEmpty());
    require(canonicalConfiguration(same->directives) == text);
    return 0;
}
