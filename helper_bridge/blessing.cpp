// SPDX-License-Identifier: MIT
#include "blessing.h"

#include <QProcess>

using namespace Qt::StringLiterals;

namespace {

// pkexec's own; the tool that it starts ends with neither.
constexpr int dismissed = 126;
constexpr int notAuthorized = 127;

QString reason(const QProcess &process)
{
    const int status = process.exitCode();
    if (process.exitStatus() != QProcess::NormalExit)
        return u"The tool that installs the helper was ended by signal %1."_s.arg(status);
    if (status == dismissed)
        return u"pkexec: the person who was asked for a password cancelled."_s;
    if (status == notAuthorized)
        return u"pkexec may not, or cannot, run the tool that installs the helper."_s;
    return u"The tool that installs the helper ended with status %1."_s.arg(status);
}

} // namespace

Result<void> Blessing::SMJobBless(const QString &helper, const Programs &programs)
{
    constexpr qsizetype maxComplaint = 2000;
    QProcess process;
    // pkexec refuses to work where it finds an environment that it does not like.
    QProcessEnvironment environment;
    environment.insert(u"PATH"_s, u"/usr/sbin:/usr/bin"_s);
    process.setProcessEnvironment(environment);
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(QProcess::nullDevice());
    process.start(programs.pkexec, {u"--disable-internal-agent"_s, programs.bless, helper});
    const bool ended = process.waitForStarted(-1) && process.waitForFinished(-1);
    if (!ended)
        return failure((programs.pkexec + u": "_s + process.errorString()).toUtf8());
    if (process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0)
        return {};
    const QByteArray complaint = process.readAllStandardError().left(maxComplaint).simplified();
    return failure(reason(process).toUtf8() + (complaint.isEmpty() ? QByteArray() : " It said: " + complaint));
}
