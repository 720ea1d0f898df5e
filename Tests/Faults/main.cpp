// SPDX-License-Identifier: MIT
#include "CampaignSummary.h"
#include "DependentProcess.h"
#include "FaultSession.h"

#include <Campaign.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>

#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <random>
#include <vector>

/*
 * The campaign shares its cases out to processes, each with a node and a facade of its own, which
 * say what became of each case: "passed N", "failed N" with the reasons, "figure NAME VALUE".
 */

namespace {

constexpr int defaultProcesses = 6;
constexpr int processTimeout = 4 * 3600 * 1000; // ms

QStringList qtWarnings;
QMutex qtWarningsMutex;

void keepWarning(QtMsgType, const QMessageLogContext &, const QString &text)
{
    const QMutexLocker locker(&qtWarningsMutex);
    qtWarnings.append("Qt warns: " + text);
}

QStringList takeWarnings()
{
    const QMutexLocker locker(&qtWarningsMutex);
    QStringList taken;
    taken.swap(qtWarnings);
    return taken;
}

QStringList toTexts(const QList<int> &numbers)
{
    QStringList texts;
    for (const int number : numbers)
        texts.append(QString::number(number));
    return texts;
}

// ---- a process of the campaign

QString keepLog(const LogCapture &log, int number)
{
    const QString folder = QDir::tempPath() + "/usbhal-faults/case-" + QString::number(number);
    QDir().mkpath(folder);
    const QStringList names = QDir(log.folder()).entryList(QDir::Files);
    for (const QString &name : names) {
        QFile::remove(folder + '/' + name);
        QFile::copy(log.folder() + '/' + name, folder + '/' + name);
    }
    return folder;
}

// On a machine that is busy the step may be over before the fault strikes. Such a case is played
// again.
QStringList playUntilMet(FaultSession &session, const FaultCase &faultCase)
{
    const auto isMiss = [](const QString &problem) { return problem.startsWith("not met: "); };
    QStringList problems;
    for (int attempt = 0; attempt < 3; ++attempt) {
        problems = session.run(faultCase) + takeWarnings();
        if (problems.isEmpty() || !std::all_of(problems.cbegin(), problems.cend(), isMiss))
            break;
    }
    return problems;
}

bool playCase(FaultSession &session, const FaultCase &faultCase, bool keepsLog)
{
    const QStringList problems = playUntilMet(session, faultCase);
    if (problems.isEmpty() && !keepsLog) {
        std::cout << "passed " << faultCase.number << std::endl;
        return true;
    }
    const QString folder = keepLog(session.log(), faultCase.number);
    std::cout << (problems.isEmpty() ? "passed " : "failed ") << faultCase.number << "\n  "
              << qPrintable(faultCase.name()) << '\n';
    for (const QString &problem : problems)
        std::cout << "    " << qPrintable(problem) << '\n';
    std::cout << "    log: " << qPrintable(folder) << std::endl;
    return problems.isEmpty();
}

void printFigures(const FaultSession &session)
{
    const FaultFigures &figures = session.figures();
    const auto print = [](const char *name, int value) {
        std::cout << "figure " << name << ' ' << value << '\n';
    };
    print("losses", figures.linkLosses);
    print("kills", figures.kills);
    print("restarts", figures.restarts);
    print("records", figures.records);
    print("met", figures.faultsMet);
    print("slowest", figures.slowestRecovery);
    print("bound", session.recoveryBound());
    std::cout.flush();
}

int playCases(const QList<int> &numbers, bool keepsLog)
{
    const bool stuck = caseOf(numbers.first()).has(&Fault::isStuck);
    FaultSession session(stuck);
    bool passed = true;
    int descriptors = 0;
    for (const int number : numbers) {
        passed = playCase(session, caseOf(number), keepsLog) && passed;
        const int now = Campaign::openDescriptors();
        descriptors = descriptors == 0 ? now : descriptors;
        if (now > descriptors + 1) {
            std::cout << "failed " << number << "\n    descriptors grew from " << descriptors
                      << " to " << now << std::endl;
            passed = false;
            descriptors = now;
        }
    }
    printFigures(session);
    return passed ? EXIT_SUCCESS : EXIT_FAILURE;
}

// ---- the campaign

std::vector<std::unique_ptr<DependentProcess>> startProcesses(const QList<int> &cases, int count,
                                                              bool keepsLogs)
{
    std::vector<std::unique_ptr<DependentProcess>> processes;
    for (int i = 0; i < qMin(count, cases.size()); ++i) {
        QList<int> share;
        for (int j = i; j < cases.size(); j += count)
            share.append(cases.at(j));
        QStringList command = QStringList{"run", "--"} +
                              wordsToRun(QCoreApplication::applicationFilePath()) +
                              QStringList{"--play", toTexts(share).join(',')};
        if (keepsLogs)
            command.append("--keep");
        processes.push_back(std::make_unique<DependentProcess>());
        processes.back()->setProcessChannelMode(QProcess::MergedChannels);
        startBuilt(*processes.back(), SIMNODE_PROGRAM, command);
    }
    return processes;
}

void listen(DependentProcess &process, CampaignSummary &summary)
{
    const auto takeLines = [&process, &summary] {
        while (process.canReadLine())
            summary.take(process.readLine());
    };
    QObject::connect(&process, &QProcess::readyReadStandardOutput, takeLines);
}

// A sanitizer has its say at the end, when all cases may have passed.
bool endsWell(DependentProcess &process)
{
    process.waitForFinished(processTimeout);
    if (process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0)
        return true;
    std::cout << "a process ended with status " << process.exitCode() << std::endl;
    return false;
}

int runCampaign(const QList<int> &cases, int inCampaign, int processCount, const std::string &kind)
{
    CampaignSummary summary(cases);
    const auto processes = startProcesses(cases, processCount, inCampaign == 1);
    for (const auto &process : processes)
        listen(*process, summary);
    bool good = true;
    for (const auto &process : processes)
        good = endsWell(*process) && good;
    summary.print(kind, inCampaign);
    const QList<int> unfinished = summary.unfinished();
    for (const int number : unfinished)
        std::cout << "unfinished " << qPrintable(caseOf(number).name()) << '\n';
    if (good && summary.isGood())
        return EXIT_SUCCESS;
    std::cout << "repeat one of them with: " << qPrintable(QCoreApplication::applicationFilePath())
              << " --case NUMBER" << std::endl;
    return EXIT_FAILURE;
}

// This run's part of the cases, another one for each seed.
QList<int> chooseCases(QList<int> cases)
{
    std::mt19937 random(Campaign::seed());
    std::shuffle(cases.begin(), cases.end(), random);
    return cases.mid(0, static_cast<int>(Campaign::scaled(static_cast<quint64>(cases.size()))));
}

int listCases(const QList<int> &cases)
{
    for (const int number : cases)
        std::cout << qPrintable(caseOf(number).name()) << '\n';
    return EXIT_SUCCESS;
}

// ---- the command line

int usageError(const QString &text)
{
    std::cerr << "fault-campaign: " << qPrintable(text) << std::endl;
    return 2;
}

// The cases that were asked for by number; nothing when one is wrong.
std::optional<QList<int>> parseCases(const QString &text)
{
    QList<int> cases;
    const QStringList words = text.split(',');
    for (const QString &word : words) {
        bool valid = false;
        const int number = word.toInt(&valid);
        if (!valid || number < 0 || number >= caseCount())
            return std::nullopt;
        cases.append(number);
    }
    return cases;
}

int playNamedCases(const QCommandLineParser &parser)
{
    const QString text = parser.value(parser.isSet("play") ? "play" : "case");
    const std::optional<QList<int>> cases = parseCases(text);
    if (!cases)
        return usageError("'" + text + "' is no case; it should be a number from 0 to " +
                          QString::number(caseCount() - 1));
    if (!parser.isSet("play"))
        return runCampaign({cases->first()}, 1, 1, "a single case");
    qInstallMessageHandler(keepWarning);
    return playCases(*cases, parser.isSet("keep"));
}

int playCampaign(const QCommandLineParser &parser)
{
    const int processes = parser.value("processes").toInt();
    if (processes < 1)
        return usageError("'" + parser.value("processes") +
                          "' is no count of processes; it should be 1 or more");
    const bool stuck = parser.isSet("stuck");
    const QList<int> cases = casesWhereThreadsGetStuck(stuck);
    if (parser.isSet("list"))
        return listCases(cases);
    return runCampaign(chooseCases(cases), cases.size(), processes,
                       stuck ? "stuck threads" : "no stuck threads");
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Plays pairs of faults at every step of a session over the simulated node.");
    const QCommandLineOption help = parser.addHelpOption();
    parser.addOptions(
        {{"stuck", "The cases in which a thread gets stuck and is killed, else all others."},
         {"list", "Prints the cases."},
         {"case", "Plays one case and keeps its log.", "NUMBER"},
         {"processes", "Processes beside one another.", "COUNT", QString::number(defaultProcesses)},
         {"play", "Plays these cases in this process, which a node serves.", "NUMBERS"},
         {"keep", "Keeps the logs of these cases, though they passed."}});
    if (!parser.parse(application.arguments()))
        return usageError(parser.errorText() + "; see --help");
    if (!parser.positionalArguments().isEmpty())
        return usageError("'" + parser.positionalArguments().first() +
                          "' is too much; it should be options only, see --help");
    if (parser.isSet(help))
        parser.showHelp();
    return parser.isSet("play") || parser.isSet("case") ? playNamedCases(parser)
                                                        : playCampaign(parser);
}
