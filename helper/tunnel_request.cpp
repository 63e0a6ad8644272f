#include "tunnel_request.h"

#include "config_reader.h"
#include "config_writer.h"
#include "configuration_source.h"
#include "system_log.h"

#include <QFile>

#include <optional>

using namespace Qt::StringLiterals;

namespace {

using Kind = HelperError::Kind;

/// A script is accepted by what it says, and then the installed one runs: nothing that a user can write to ever does.
std::optional<HelperError> judgeScript(const ConfigurationSource::Caller &caller, const QString &given,
                                       const QByteArray &installed)
{
    const QByteArray path = given.toUtf8();
    QFile script(QFile::decodeName(installed));
    if (!script.open(QIODevice::ReadOnly))
        return HelperError{Kind::Internal, "The helper's own scripts are not installed."};
    if (path == installed)
        return std::nullopt;
    const QByteArray expected = script.readAll();
    const auto bytes = ConfigurationSource::read(caller, path, ConfigurationSource::Ownership::Any, expected.size());
    if (const auto *unreadable = std::get_if<ConfigurationSource::Unreadable>(&bytes))
        return HelperError{Kind::ScriptRejected, "A script of the request " + unreadable->why};
    if (std::get<QByteArray>(bytes) != expected)
        return HelperError{Kind::ScriptRejected, "A script of the request differs from the installed one."};
    return std::nullopt;
}

} // namespace

std::variant<QByteArray, HelperError> acceptedConfiguration(uid_t uid, const TunnelRequest &request,
                                                            const HelperPaths &paths)
{
    const auto caller = ConfigurationSource::callerOf(uid);
    const auto bytes = ConfigurationSource::read(caller, request.config.toUtf8(), ConfigurationSource::Ownership::Own,
                                                 ConfigurationSource::maxConfiguration);
    if (const auto *unreadable = std::get_if<ConfigurationSource::Unreadable>(&bytes))
        return HelperError{Kind::ConfigUnsafe, "The configuration file " + unreadable->why};
    const auto configuration = readConfiguration(std::get<QByteArray>(bytes));
    if (const auto *refusal = std::get_if<Refusal>(&configuration))
        return HelperError{Kind::ConfigRejected, sentence(*refusal)};
    if (auto refused = judgeScript(caller, request.clientUp, paths.clientUp))
        return *std::move(refused);
    if (auto refused = judgeScript(caller, request.clientDown, paths.clientDown))
        return *std::move(refused);
    const auto &accepted = std::get<Configuration>(configuration);
    for (const Directive &dropped : accepted.dropped)
        SystemLog::write(
            u"Configuration: line %1, \"%2\" is left out."_s.arg(dropped.line).arg(QLatin1String(dropped.name)));
    return canonicalConfiguration(accepted.directives);
}
