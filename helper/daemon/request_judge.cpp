// SPDX-License-Identifier: MIT
#include "request_judge.h"

#include "configuration_reader.h"
#include "configuration_writer.h"
#include "system_log.h"

#include <QFile>
#include <QMap>

#include <optional>
#include <utility>

using namespace Qt::StringLiterals;
using ReadingChild::Ownership;
using Kind = HelperError::Kind;

namespace {

constexpr qsizetype maxConfiguration = qsizetype(256) * 1024; // bytes
constexpr qsizetype maxScript = qsizetype(64) * 1024;

const HelperError hanging{Kind::ConfigUnsafe, "The configuration file was not read in time."};

std::vector<ReadingChild::Wanted> filesOf(const TunnelRequest &request)
{
    return {{request.config.toUtf8(), Ownership::Own, maxConfiguration},
            {request.clientUp.toUtf8(), Ownership::Any, maxScript},
            {request.clientDown.toUtf8(), Ownership::Any, maxScript}};
}

/// A script is accepted by what it says, and then the installed one runs: nothing that a user can write to ever does.
std::optional<HelperError> judgeScript(const CallerFiles::File &given, const QByteArray &installed)
{
    QFile script(QFile::decodeName(installed));
    if (!script.open(QIODevice::ReadOnly))
        return HelperError{Kind::Internal, "The helper's own scripts are not installed."};
    if (const auto *unreadable = std::get_if<CallerFiles::Unreadable>(&given))
        return HelperError{Kind::ScriptRejected, "A script of the request " + unreadable->why};
    if (std::get<QByteArray>(given) != script.readAll())
        return HelperError{Kind::ScriptRejected, "A script of the request differs from the installed one."};
    return std::nullopt;
}

/// One line for each name, of which there are few, however often the file has it.
void logDropped(const QList<Directive> &dropped)
{
    QMap<QByteArray, int> firstLines;
    for (const Directive &each : dropped)
        if (const QByteArray name(each.name); !firstLines.contains(name))
            firstLines.insert(name, each.line);
    for (const auto &[name, line] : firstLines.asKeyValueRange())
        SystemLog::write(u"Configuration: \"%1\" is left out, first in line %2."_s.arg(QLatin1String(name)).arg(line));
}

std::variant<QByteArray, HelperError> judged(const std::vector<CallerFiles::File> &files, const HelperPaths &paths)
{
    if (const auto *unreadable = std::get_if<CallerFiles::Unreadable>(&files[0]))
        return HelperError{Kind::ConfigUnsafe, "The configuration file " + unreadable->why};
    const auto configuration = readConfiguration(std::get<QByteArray>(files[0]));
    if (!configuration)
        return HelperError{Kind::ConfigRejected, configuration.error().detail};
    if (auto refused = judgeScript(files[1], paths.clientUp))
        return *std::move(refused);
    if (auto refused = judgeScript(files[2], paths.clientDown))
        return *std::move(refused);
    logDropped(configuration->dropped);
    return canonicalConfiguration(configuration->directives);
}

} // namespace

void RequestJudge::judge(uid_t uid, const TunnelRequest &request, Verdict verdict)
{
    Line &line = lines_[uid];
    if (line.hangs) {
        verdict(hanging);
        return;
    }
    line.waiting.push_back({request, std::move(verdict)});
    if (!line.files)
        readNext(uid);
}

void RequestJudge::abandon(uid_t uid)
{
    refuseAll(uid, {Kind::Internal, "The tunnel was ended before it began."});
}

void RequestJudge::readNext(uid_t uid)
{
    Line &line = lines_[uid];
    if (line.waiting.empty()) {
        lines_.erase(uid);
        return;
    }
    line.files = std::make_unique<CallerFiles>(CallerFiles::callerOf(uid), filesOf(line.waiting.front().request));
    line.current = std::move(line.waiting.front().verdict);
    line.waiting.pop_front();
    connect(line.files.get(), &CallerFiles::read, this,
            [this, uid](const std::vector<CallerFiles::File> &files) { filesWereRead(uid, files); });
    connect(line.files.get(), &CallerFiles::hangs, this, [this, uid] {
        lines_[uid].hangs = true;
        refuseAll(uid, hanging);
    });
    connect(line.files.get(), &CallerFiles::gone, this, [this, uid] {
        Line &over = lines_[uid];
        over.hangs = false;
        over.files.release()->deleteLater(); // it is what called
        readNext(uid);
    });
}

void RequestJudge::filesWereRead(uid_t uid, const std::vector<CallerFiles::File> &files)
{
    if (const Verdict verdict = std::exchange(lines_[uid].current, nullptr))
        verdict(judged(files, paths_));
}

void RequestJudge::refuseAll(uid_t uid, const HelperError &error)
{
    const auto line = lines_.find(uid);
    if (line == lines_.end())
        return;
    const auto waiting = std::exchange(line->second.waiting, {});
    if (const Verdict verdict = std::exchange(line->second.current, nullptr))
        verdict(error);
    for (const Waiting &each : waiting)
        each.verdict(error);
}
