// SPDX-License-Identifier: MIT
#include "Comparison.h"

#include <Campaign.h>
#include <VirtualTime.h>

#include <QTest>

#include <csignal>
#include <cstdio>

namespace {

#ifndef USBHAL_FULL_SEQUENCES
#define USBHAL_FULL_SEQUENCES 1000000
#endif

quint32 seedAtWork = 0;
quint64 sequenceAtWork = 0;

void nameSequence(int signal)
{
    std::fprintf(stderr, "USBHAL_SEED=%u USBHAL_SEQUENCE=%llu: the process ends here\n", seedAtWork,
                 sequenceAtWork);
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

/** Names the sequence that ends the process, unless a sanitizer has its own report to make. */
struct SignalHandlers
{
    SignalHandlers()
    {
        for (const int signal : {SIGABRT, SIGSEGV}) {
            const auto former = std::signal(signal, nameSequence);
            if (former != SIG_DFL)
                std::signal(signal, former);
        }
    }
};

const SignalHandlers signalHandlers; // made before QtTest looks whether it shall install its own

Step call(Call::Kind kind, int port = 0)
{
    Step step;
    step.kind = Step::MakeCall;
    step.call.kind = kind;
    step.call.port = port;
    return step;
}

} // namespace

/**
 * The core against a model of it. USBHAL_SEED repeats a run, and USBHAL_SEQUENCE one sequence of
 * it, whose steps are then printed before they are done.
 */
class ModelTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        qSetGlobalQHashSeed(0); // else the order of the ports were another one in each run
        VirtualTime::setPauseDivisor(0);
        VirtualTime::setInstantWaits(true);
    }

    void theCoreDoesWhatTheModelDoes();
    void aFailingSequenceIsShrunkToTheStepsThatItNeeds();
    void aNumberStandsForOneSequence();

private:
    void checkSequence(quint32 seed, quint64 number);

    Amount _amount;
};

void ModelTest::checkSequence(quint32 seed, quint64 number)
{
    seedAtWork = seed;
    sequenceAtWork = number;
    const Sequence sequence = randomSequence(seed, number);
    const std::optional<QString> found = compare(sequence, _amount);
    if (!found)
        return;
    Amount ignored;
    const Sequence small =
        shrunk(sequence, [&](const Sequence &other) { return bool(compare(other, ignored)); });
    const QString text = QString("USBHAL_SEED=%1 USBHAL_SEQUENCE=%2: %3\nof %4 steps these fail: "
                                 "%5\n%6")
                             .arg(seed)
                             .arg(number)
                             .arg(*found)
                             .arg(sequence.steps.size())
                             .arg(compare(small, ignored).value_or("(not again)"), small.text());
    QFAIL(qPrintable(text));
}

void ModelTest::theCoreDoesWhatTheModelDoes()
{
    const quint32 seed = Campaign::seed();
    bool given = false;
    const quint64 only = qEnvironmentVariable("USBHAL_SEQUENCE").toULongLong(&given);
    if (given)
        std::cout << randomSequence(seed, only).text().toStdString() << std::flush;
    const quint64 first = given ? only : 0;
    const quint64 count = given ? 1 : Campaign::scaled(USBHAL_FULL_SEQUENCES);
    for (quint64 number = first; number < first + count && !QTest::currentTestFailed(); ++number)
        checkSequence(seed, number);
    if (QTest::currentTestFailed())
        return;
    Campaign::printFigure("sequences", count);
    Campaign::printFigure("steps", _amount.steps);
    Campaign::printFigure("log lines, signals, driver calls and results compared", _amount.events);
    for (int kind = 0; kind < Step::KindCount; ++kind)
        Campaign::printFigure("steps, " + Step::name(Step::Kind(kind)).toStdString(),
                              _amount.kinds[static_cast<std::size_t>(kind)]);
    for (int kind = 0; kind < Call::KindCount; ++kind)
        Campaign::printFigure("calls, " + Call::name(Call::Kind(kind)).toStdString(),
                              _amount.calls[static_cast<std::size_t>(kind)]);
}

void ModelTest::aFailingSequenceIsShrunkToTheStepsThatItNeeds()
{
    Sequence sequence;
    for (int i = 0; i < 40; ++i)
        sequence.steps.append(call(i % 10 == 7 ? Call::Read : Call::Status, i));
    const Sequence small = shrunk(sequence, [](const Sequence &other) {
        int reads = 0;
        for (const Step &step : other.steps)
            reads += step.call.kind == Call::Read ? 1 : 0;
        return reads >= 2 && other.steps.last().call.port == 39;
    });
    QStringList left;
    for (const Step &step : small.steps)
        left.append(step.text());
    QCOMPARE(left, QStringList({"read(port 27, 0)", "read(port 37, 0)", "status(port 39, 0)"}));
}

void ModelTest::aNumberStandsForOneSequence()
{
    QCOMPARE(randomSequence(1, 5).text(), randomSequence(1, 5).text());
    QVERIFY(randomSequence(1, 5).text() != randomSequence(1, 6).text());
    QVERIFY(randomSequence(1, 5).text() != randomSequence(2, 5).text());
}

QTEST_GUILESS_MAIN(ModelTest)
#include "tst_model.moc"
