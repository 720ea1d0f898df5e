// SPDX-License-Identifier: MIT
#include "Command.h"

#include <QtTest>

#include <cerrno>

using namespace simnode;

class CommandTest : public QObject
{
    Q_OBJECT

private slots:
    void everyCommandOfTheTableIsUnderstood_data();
    void everyCommandOfTheTableIsUnderstood();
    void faultsLastUntilFurtherNoticeWithoutANumber();
    void faultsTakeTheNumberOfCallsTheyLast();
    void errorsAreTakenByName();
    void quantitiesAreTakenAsGiven();
    void injectedBytesAreReadFromHexadecimal();
    void thePathOfACaptureIsTakenAsGiven();
    void onKeepsTheCallTheCountAndTheCommand();
    void onMayBeNestedButNotWithoutEnd();
    void faultyCommandsSayWhyAndHowItShouldBe_data();
    void faultyCommandsSayWhyAndHowItShouldBe();
    void bytesThatAreNoTextAreRefused();
    void scriptsSkipCommentsAndEmptyLines();
    void faultyScriptsNameTheLine();
};

namespace {

Command parsed(const char *line)
{
    const ParsedCommand result = parseCommand(line);
    return result.command.value_or(Command());
}

} // namespace

void CommandTest::everyCommandOfTheTableIsUnderstood_data()
{
    QTest::addColumn<int>("subject");
    QTest::addColumn<int>("verb");
    const auto row = [](const char *line, Subject subject, Verb verb = Verb::None) {
        QTest::newRow(line) << static_cast<int>(subject) << static_cast<int>(verb);
    };
    row("node missing", Subject::Node, Verb::Missing);
    row("node present", Subject::Node, Verb::Present);
    row("open fail EBUSY", Subject::Open, Verb::Fail);
    row("open fail EBUSY 2", Subject::Open, Verb::Fail);
    row("open stuck", Subject::Open, Verb::Stuck);
    row("open stuck 3", Subject::Open, Verb::Stuck);
    row("open ok", Subject::Open, Verb::Ok);
    row("read stuck", Subject::Read, Verb::Stuck);
    row("read stuck 2", Subject::Read, Verb::Stuck);
    row("read silent", Subject::Read, Verb::Silent);
    row("read fail EIO", Subject::Read, Verb::Fail);
    row("read ok", Subject::Read, Verb::Ok);
    row("write stuck", Subject::Write, Verb::Stuck);
    row("write fail EIO 3", Subject::Write, Verb::Fail);
    row("write short 4", Subject::Write, Verb::Short);
    row("write zero", Subject::Write, Verb::Zero);
    row("write ok", Subject::Write, Verb::Ok);
    row("ioctl fail EIO", Subject::Ioctl, Verb::Fail);
    row("ioctl ok", Subject::Ioctl, Verb::Ok);
    row("close fail EIO 1", Subject::Close, Verb::Fail);
    row("close ok", Subject::Close, Verb::Ok);
    row("latency 20", Subject::Latency);
    row("timeout zero", Subject::Timeout, Verb::Zero);
    row("timeout error", Subject::Timeout, Verb::Error);
    row("merge 2", Subject::Merge);
    row("split 0", Subject::Split);
    row("cable out", Subject::Cable, Verb::Out);
    row("cable in", Subject::Cable, Verb::In);
    row("inject 00", Subject::Inject);
    row("pcap bus.pcap", Subject::Pcap);
    row("pcap off", Subject::Pcap, Verb::Off);
    row("on open 1 node missing", Subject::On);
    row("wait 10", Subject::Wait);
    row("status", Subject::Status);
    row("reset", Subject::Reset);
    row(" \t status \r\n", Subject::Status);
}

void CommandTest::everyCommandOfTheTableIsUnderstood()
{
    QFETCH(int, subject);
    QFETCH(int, verb);
    const ParsedCommand result = parseCommand(QTest::currentDataTag());
    QVERIFY2(result.command, result.error.c_str());
    QCOMPARE(static_cast<int>(result.command->subject), subject);
    QCOMPARE(static_cast<int>(result.command->verb), verb);
}

void CommandTest::faultsLastUntilFurtherNoticeWithoutANumber()
{
    QCOMPARE(parsed("read fail EIO").calls, 0u);
    QCOMPARE(parsed("write stuck").calls, 0u);
}

void CommandTest::faultsTakeTheNumberOfCallsTheyLast()
{
    QCOMPARE(parsed("read silent 7").calls, 7u);
    QCOMPARE(parsed("read fail EIO 8").calls, 8u);
    QCOMPARE(parsed("write short 20 9").calls, 9u);
    QCOMPARE(parsed("write stuck 4294967295").calls, 4294967295u);
}

void CommandTest::errorsAreTakenByName()
{
    QCOMPARE(parsed("open fail EBUSY").error, EBUSY);
    QCOMPARE(parsed("read fail ECONNRESET").error, ECONNRESET);
    QCOMPARE(parsed("write fail ETIMEDOUT 1").error, ETIMEDOUT);
}

void CommandTest::quantitiesAreTakenAsGiven()
{
    QCOMPARE(parsed("write short 12").quantity, 12u);
    QCOMPARE(parsed("merge 3").quantity, 3u);
    QCOMPARE(parsed("split 65536").quantity, 65536u);
    QCOMPARE(parsed("wait 2500").quantity, 2500u);
    QCOMPARE(parsed("latency 15").quantity, 15u);
}

void CommandTest::injectedBytesAreReadFromHexadecimal()
{
    QCOMPARE(parsed("inject 00fFa1").data, std::string("\x00\xff\xa1", 3));
    const std::string longest(2 * maxTransferSize, 'a');
    QCOMPARE(parsed(("inject " + longest).c_str()).data.size(), maxTransferSize);
}

void CommandTest::thePathOfACaptureIsTakenAsGiven()
{
    QCOMPARE(parsed("pcap ../a-b_%41/off").data, std::string("../a-b_%41/off"));
    QCOMPARE(parsed("pcap off").data, std::string());
}

void CommandTest::onKeepsTheCallTheCountAndTheCommand()
{
    const Command command = parsed("on write 5 read fail EIO 2");
    QCOMPARE(static_cast<int>(command.call), static_cast<int>(Call::Write));
    QCOMPARE(command.calls, 5u);
    QVERIFY(command.then);
    QCOMPARE(static_cast<int>(command.then->subject), static_cast<int>(Subject::Read));
    QCOMPARE(command.then->error, EIO);
    QCOMPARE(command.then->calls, 2u);
}

void CommandTest::onMayBeNestedButNotWithoutEnd()
{
    QVERIFY(parseCommand("on read 1 on write 1 cable out").command);
    std::string nested;
    for (int i = 0; i < 10000; ++i)
        nested += "on read 1 ";
    const ParsedCommand result = parseCommand(nested + "status");
    QVERIFY(!result.command);
    QVERIFY(result.error.find("too many 'on'") != std::string::npos);
}

void CommandTest::faultyCommandsSayWhyAndHowItShouldBe_data()
{
    QTest::addColumn<QByteArray>("why");
    QTest::addColumn<QByteArray>("howItShouldBe");
    const auto row = [](const char *line, const char *why, const char *how) {
        QTest::newRow(line) << QByteArray(why) << QByteArray(how);
    };
    row("", "empty", "node, open, read");
    row("fly", "'fly' is no command", "node, open, read");
    row("node", "a word is missing", "node missing | node present");
    row("node gone", "'gone' does not follow 'node'", "node missing | node present");
    row("open fail", "a word is missing", "open fail ERRNO");
    row("open fail EFOO", "'EFOO' is no errno name, such as EBUSY", "open fail ERRNO");
    row("open fail 5", "'5' is no errno name", "open fail ERRNO");
    row("open ok now", "'now' is too much", "open ok");
    row("read stuck 0", "'0' is no number from 1", "read stuck [N]");
    row("read stuck -1", "'-1' is no number", "read stuck [N]");
    row("read stuck 4294967296", "'4294967296' is no number", "read stuck [N]");
    row("read fail EIO 2x", "'2x' is no number", "read fail ERRNO [N]");
    row("write short", "a word is missing", "write short BYTES [N]");
    row("write short 0", "'0' is no number from 1 to 65536", "write short BYTES [N]");
    row("merge many", "'many' is no number", "merge N");
    row("merge 1001", "'1001' is no number from 0 to 1000", "merge N");
    row("split 65537", "'65537' is no number", "split BYTES");
    row("inject", "a word is missing", "inject HEX");
    row("inject abc", "two hexadecimal digits", "inject HEX");
    row("inject 0g", "'0g' is no hexadecimal byte", "inject HEX");
    row("pcap", "a word is missing", "pcap FILE");
    row("pcap a b", "'b' is too much", "pcap FILE");
    row("on read 1", "a word is missing", "on open|read|write|ioctl|close K COMMAND");
    row("on poll 1 status", "'poll' is no call", "on open|read|write|ioctl|close K COMMAND");
    row("ioctl stuck", "'stuck' does not follow 'ioctl'", "ioctl fail ERRNO [N] | ioctl ok");
    row("latency", "a word is missing", "latency MS");
    row("on read 0 status", "'0' is no number from 1", "on open|read|write|ioctl|close K COMMAND");
    row("on read 1 fly", "'fly' is no command", "node, open, read");
    row("on read 1 wait 5", "'wait' cannot follow 'on'", "a line of its own");
    row("wait", "a word is missing", "wait MS");
}

void CommandTest::faultyCommandsSayWhyAndHowItShouldBe()
{
    QFETCH(QByteArray, why);
    QFETCH(QByteArray, howItShouldBe);
    const ParsedCommand result = parseCommand(QTest::currentDataTag());
    QVERIFY(!result.command);
    const std::size_t separator = result.error.find("; it should be: ");
    QVERIFY2(separator != std::string::npos, result.error.c_str());
    QVERIFY2(result.error.find(why.constData()) < separator, result.error.c_str());
    QVERIFY2(result.error.find(howItShouldBe.constData(), separator) != std::string::npos,
             result.error.c_str());
}

void CommandTest::bytesThatAreNoTextAreRefused()
{
    const ParsedCommand result = parseCommand(std::string("\0\xff\x1b[2J", 6));
    QVERIFY(!result.command);
    QVERIFY2(result.error.find("'???[2J' is no command") == 0, result.error.c_str());
}

void CommandTest::scriptsSkipCommentsAndEmptyLines()
{
    const ParsedScript script = parseScript("# a comment\n\n  \r\nnode missing # behind a command\n"
                                            "wait 5\r\nnode present");
    QCOMPARE(script.error, std::string());
    QCOMPARE(script.commands.size(), std::size_t(3));
    QCOMPARE(static_cast<int>(script.commands[0].verb), static_cast<int>(Verb::Missing));
    QCOMPARE(script.commands[1].quantity, 5u);
    QCOMPARE(static_cast<int>(script.commands[2].verb), static_cast<int>(Verb::Present));
}

void CommandTest::faultyScriptsNameTheLine()
{
    const ParsedScript script = parseScript("status\n\nread fial EIO\n");
    QVERIFY2(script.error.find("line 3: 'fial' does not follow 'read'") == 0, script.error.c_str());
}

QTEST_APPLESS_MAIN(CommandTest)
#include "tst_command.moc"
