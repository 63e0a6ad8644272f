// SPDX-License-Identifier: MIT
#include "request_judge.h"

#include "configuration_reader.h"
#include "configuration_writer.h"
#include "remote_addresses.h"
#include "system_log.h"

#include <QFile>
#include <QMap>

#include <utility>

using namespace Qt::StringLiterals;
using ReadingChild::Ownership;

namespace {

constexpr qsizetype maxConfiguration = qsizetype(256) * 1024; // bytes
constexpr qsizetype maxScript = qsizetype(64) * 1024;

const Error hanging{ErrorCode::ConfigUnsafe, "The configuration file was not read in time."};

std::vector<ReadingChild::Wanted> filesOf(const TunnelRequest &request)
{
    return {{request.config.toUtf8(), Ownership::Own, maxConfiguration},
            {request.clientUp.toUtf8(), Ownership::Any, maxScript},
            {request.clientDown.toUtf8(), Ownership::Any, maxScript}};
}

/// A script is accepted by what it says, and then the installed one runs: nothing that a user can write to ever does.
Result<void> judgeScript(const CallerFiles::File &given, const QByteArray &installed)
{
    QFile script(QFile::decodeName(installed));
    if (!script.open(QIODevice::ReadOnly))
        return failure("The helper's own scripts are not installed.", ErrorCode::Internal);
    if (!given)
        return failure("A script of the request " + given.error().detail, ErrorCode::ScriptRejected);
    if (*given != script.readAll())
        return failure("A script of the request differs from the installed one.", ErrorCode::ScriptRejected);
    return {};
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

Result<QByteArray> judged(const std::vector<CallerFiles::File> &files, const HelperPaths &paths)
{
    if (!files[0])
        return failure("The configuration file " + files[0].error().detail, ErrorCode::ConfigUnsafe);
    const auto configuration = readConfiguration(*files[0]);
    if (!configuration)
        return tl::make_unexpected(configuration.error());
    if (const auto up = judgeScript(files[1], paths.clientUp); !up)
        return tl::make_unexpected(up.error());
    if (const auto down = judgeScript(files[2], paths.clientDown); !down)
        return tl::make_unexpected(down.error());
    logDropped(configuration->dropped);
    return RemoteAddresses::lineFor(configuration->directives) + canonicalConfiguration(configuration->directives);
}

} // namespace

void RequestJudge::judge(uid_t uid, const TunnelRequest &request, Handler handler)
{
    Queue &queue = queues_[uid];
    if (queue.hangs) {
        handler(tl::make_unexpected(hanging));
        return;
    }
    queue.waiting.push_back({request, std::move(handler)});
    if (!queue.files)
        readNext(uid);
}

void RequestJudge::abandon(uid_t uid)
{
    refuseAll(uid, {ErrorCode::Internal, "The tunnel was ended before it began."});
}

void RequestJudge::readNext(uid_t uid)
{
    Queue &queue = queues_[uid];
    if (queue.waiting.empty()) {
        queues_.erase(uid);
        return;
    }
    queue.files =
        Deferred<CallerFiles>(new CallerFiles(CallerFiles::callerOf(uid), filesOf(queue.waiting.front().request)));
    queue.current = std::move(queue.waiting.front().handler);
    queue.waiting.pop_front();
    connect(queue.files.get(), &CallerFiles::read, this,
            [this, uid](const std::vector<CallerFiles::File> &files) { filesWereRead(uid, files); });
    connect(queue.files.get(), &CallerFiles::hangs, this, [this, uid] {
        queues_[uid].hangs = true;
        refuseAll(uid, hanging);
    });
    connect(queue.files.get(), &CallerFiles::gone, this, [this, uid] {
        queues_[uid].files.reset();
        readNext(uid);
    });
}

void RequestJudge::filesWereRead(uid_t uid, const std::vector<CallerFiles::File> &files)
{
    if (const Handler handler = std::exchange(queues_[uid].current, nullptr))
        handler(judged(files, paths_));
}

void RequestJudge::refuseAll(uid_t uid, const Error &error)
{
    const auto queue = queues_.find(uid);
    if (queue == queues_.end())
        return;
    const auto waiting = std::exchange(queue->second.waiting, {});
    if (const Handler handler = std::exchange(queue->second.current, nullptr))
        handler(tl::make_unexpected(error));
    for (const Waiting &each : waiting)
        each.handler(tl::make_unexpected(error));
}
