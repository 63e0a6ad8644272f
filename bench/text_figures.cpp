// SPDX-License-Identifier: MIT
// What turns text into values, inside one process: OpenVPN's lines, a configuration, the account service's answer.
// Standard output belongs to the lines that the client prints, so the figures go to --benchmark_out.

#include "account_answer.h"
#include "configuration_reader.h"
#include "http_client.h"
#include "openvpn_management.h"

#include <QCoreApplication>
#include <QFile>

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <variant>

namespace {

constexpr qsizetype chunk = 2048; // what the reader takes at once

/// What OpenVPN sends while it connects and after, each kind as often as the others.
constexpr char talk[] =
    ">INFO:OpenVPN Management Interface Version 5 -- type 'help' for more info\r\n"
    "SUCCESS: real-time state notification set to ON\r\n"
    ">LOG:1700000000,I,TCP/UDP: Preserving recently used remote address: [AF_INET]203.0.113.20:1194\r\n"
    ">STATE:1700000000,ASSIGN_IP,,10.8.0.2,,,,\r\n"
    ">BYTECOUNT:183920,2231\r\n";
constexpr qint64 talkLines = 5;
constexpr qint64 textLines = talkLines * 2000;

/// Hands lines over as the reader does. The announcements of states wait for the main thread, as everywhere.
void dispatch(qint64 lines)
{
    static const QByteArray text = QByteArray(talk).repeated(textLines / talkLines);
    QByteArray buffer;
    for (qint64 left = lines; left > 0; left -= textLines) {
        const QByteArrayView part = QByteArrayView(text).first(std::min(left, textLines) * text.size() / textLines);
        for (qsizetype at = 0; at < part.size(); at += chunk) {
            buffer += part.sliced(at, std::min(chunk, part.size() - at));
            buffer = OpenVPNManagement::processBuffer(buffer);
            QCoreApplication::processEvents();
        }
    }
}

double residentKiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray text = status.readAll();
    const qsizetype at = text.indexOf("VmRSS:");
    return at < 0 ? 0 : std::strtod(text.constData() + at + std::strlen("VmRSS:"), nullptr);
}

void lines(benchmark::State &state)
{
    for ([[maybe_unused]] const auto pass : state)
        dispatch(state.range(0));
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetComplexityN(state.range(0));
}

/// The growth is what the second to the tenth million add.
void memoryOverLines(benchmark::State &state)
{
    constexpr qint64 million = 1'000'000;
    for ([[maybe_unused]] const auto pass : state) {
        dispatch(million);
        const double before = residentKiB();
        double most = before;
        for (int i = 1; i < 10; ++i) {
            dispatch(million);
            most = std::max(most, residentKiB());
        }
        state.counters["resident_kib"] = before;
        state.counters["growth_kib"] = most - before;
    }
    state.SetItemsProcessed(state.iterations() * 10 * million);
}

void configuration(benchmark::State &state)
{
    QFile file(QStringLiteral(CORVALE_PROFILES "/many_remotes_tls_crypt.ovpn"));
    if (!file.open(QIODevice::ReadOnly))
        return state.SkipWithError("the profile cannot be read");
    const QByteArray bytes = file.readAll();
    for ([[maybe_unused]] const auto pass : state) {
        if (!readConfiguration(bytes))
            return state.SkipWithError("the profile was refused");
    }
    state.SetBytesProcessed(state.iterations() * bytes.size());
}

/// A profile's answer with a configuration of so many KiB.
void answer(benchmark::State &state)
{
    HttpResult result;
    result.status = 200;
    result.body = R"({"config": ")" +
                  QByteArray("remote vpn.corvale.example 1194 udp\\n").repeated(28 * state.range(0)) + R"("})";
    for ([[maybe_unused]] const auto pass : state) {
        const AccountAnswer sorted = sortAnswer(result);
        if (sorted.kind() != AccountAnswer::Kind::success)
            return state.SkipWithError("the answer was not understood");
    }
    state.SetBytesProcessed(state.iterations() * result.body.size());
}

BENCHMARK(lines)->Arg(10'000)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond)->Complexity(benchmark::oN);
BENCHMARK(memoryOverLines)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(configuration)->Unit(benchmark::kMicrosecond);
BENCHMARK(answer)->Arg(8)->Arg(256)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return EXIT_FAILURE;
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
