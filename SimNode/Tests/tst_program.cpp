// SPDX-License-Identifier: MIT
#include "SimnodeProcess.h"

#include <QtTest>

#include <csignal>

using namespace simnode;

namespace {

// The kernel's letter for what the process does; 0 if there is none of this number.
char stateOf(const QByteArray &process)
{
    QFile file("/proc/" + process + "/stat");
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray text = file.readAll();
    const int name = text.lastIndexOf(')');
    return name < 0 ? '\0' : text[name + 2];
}

} // namespace

/// `simnode run` and `simnode control`, the command line, and the preload library.
class ProgramTest : public QObject
{
    Q_OBJECT

private slots:
    void runEndsWithTheStatusOfItsProgram_data();
    void runEndsWithTheStatusOfItsProgram();
    void runServesItsProgram();
    void runRemovesOnlyAFolderOfItsOwn();
    void runExtendsTheEnvironment();
    void runPassesSignalsOn();
    void noProgramOutlivesItsKilledDaemon();
    void runFindsTheInstalledPreloadLibrary();
    void runTakesThePreloadLibraryFromTheEnvironment();
    void runWithoutAPreloadLibrarySaysSo();
    void runServesItsProgramFromAFolderWithABlankAndAColon();
    void runRefusesWhereItCanMakeNoPathThatTheLoaderTakes();
    void runRefusesALibraryThatCannotBeLoaded();
    void controlTellsTheAnswerByItsExitStatus();
    void controlWithoutADaemonFails();
    void wrongCommandLinesSayHowTheyShouldBe_data();
    void wrongCommandLinesSayHowTheyShouldBe();
    void helpIsNoError();
    void theHelpOfControlListsTheCommands();
    void versionIsNoError();
    void thePreloadLibraryExportsTheWrappedNamesOnly();
    void thePreloadLibraryNeedsTheCLibraryOnly();
};

void ProgramTest::runEndsWithTheStatusOfItsProgram_data()
{
    QTest::addColumn<QStringList>("program");
    QTest::addColumn<int>("exitCode");
    QTest::newRow("success") << QStringList{"true"} << 0;
    QTest::newRow("failure") << QStringList{"sh", "-c", "exit 7"} << 7;
    QTest::newRow("signal") << QStringList{"sh", "-c", "kill -KILL $$"} << 128 + SIGKILL;
    QTest::newRow("no such program") << QStringList{"/no/such/program"} << 127;
}

void ProgramTest::runEndsWithTheStatusOfItsProgram()
{
    QFETCH(QStringList, program);
    QFETCH(int, exitCode);
    QCOMPARE(runSimnode(QStringList{"run", "--"} + program).exitCode, exitCode);
}

void ProgramTest::runServesItsProgram()
{
    const Result result = runSimnode(QStringList{"run", "--"} + wordsToRun(SIMNODE_PROBE) +
                                     QStringList{"open", "10", "read", "close", "close"});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.output,
             QByteArray("open 0 -\ntimeout 0 -\nread 0 -\nclose 0 -\nclose -1 EBADF\n"));
    QCOMPARE(result.errors, QByteArray());
}

void ProgramTest::runRemovesOnlyAFolderOfItsOwn()
{
    QTemporaryDir folder;
    QProcessEnvironment environment = cleanEnvironment();
    environment.insert("TMPDIR", folder.path());
    const QStringList print = {"--", "sh", "-c", "echo $SIMNODE_DIR; ls $SIMNODE_DIR"};
    Result result = runSimnode(QStringList{"run"} + print, environment);
    QVERIFY2(result.output.startsWith(folder.path().toUtf8() + "/simnode-"), result.output);
    QVERIFY2(result.output.endsWith("\ncontrol\ndevice\nhost\n"), result.output);
    QCOMPARE(entriesOf(folder.path()), QStringList());

    const QString directory = folder.filePath("kept");
    result = runSimnode(QStringList{"run", "--dir", directory} + print, environment);
    QCOMPARE(result.output, directory.toUtf8() + "\ncontrol\ndevice\nhost\n");
    QCOMPARE(entriesOf(folder.path()), QStringList{"kept"});
    QCOMPARE(entriesOf(directory), QStringList());
}

void ProgramTest::runExtendsTheEnvironment()
{
    QTemporaryDir folder;
    const QString library = folder.filePath("preload.so");
    QVERIFY(QFile::copy(SIMNODE_PRELOAD_LIBRARY, library));
    QProcessEnvironment environment = cleanEnvironment();
    environment.insert("SIMNODE_PRELOAD", library);
    environment.insert("LD_PRELOAD", "libdl.so.2");
    environment.insert("ASAN_OPTIONS", "verify_asan_link_order=0:halt_on_error=1");
    const Result result =
        runSimnode({"run", "--", "sh", "-c", "echo $LD_PRELOAD; echo $ASAN_OPTIONS"}, environment);
    QCOMPARE(result.output,
             QByteArray("libdl.so.2:" + library.toUtf8() +
                        "\nverify_asan_link_order=0:halt_on_error=1:verify_asan_link_order=0\n"));
}

void ProgramTest::runPassesSignalsOn()
{
    for (const int signal : {SIGINT, SIGTERM}) {
        ForkedProcess process;
        process.setProcessEnvironment(cleanEnvironment());
        startBuilt(process, SIMNODE_EXECUTABLE,
                   {"run", "--", "sh", "-c",
                    "trap 'echo INT; exit 3' INT; trap 'echo TERM; exit 4' TERM; echo ready; "
                    "while :; do sleep 0.05; done"});
        QVERIFY(process.waitForReadyRead(waitTime));
        QCOMPARE(process.readAllStandardOutput(), QByteArray("ready\n"));
        QCOMPARE(kill(static_cast<pid_t>(process.processId()), signal), 0);
        const Result result = finish(process);
        QCOMPARE(result.exitCode, signal == SIGINT ? 3 : 4);
        QCOMPARE(result.output, QByteArray(signal == SIGINT ? "INT\n" : "TERM\n"));
    }
}

void ProgramTest::noProgramOutlivesItsKilledDaemon()
{
    ForkedProcess process;
    process.setProcessEnvironment(cleanEnvironment());
    startBuilt(
        process, SIMNODE_EXECUTABLE,
        {"run", "--", "sh", "-c", "trap '' TERM HUP INT; echo $$; while :; do sleep 0.05; done"});
    QVERIFY(process.waitForReadyRead(waitTime));
    const QByteArray program = process.readLine().trimmed();
    QVERIFY2(stateOf(program) != 0, program);
    process.kill();
    QVERIFY(process.waitForFinished(waitTime));
    const bool isEnded =
        QTest::qWaitFor([&] { return stateOf(program) == 0 || stateOf(program) == 'Z'; }, waitTime);
    if (!isEnded)
        kill(program.toInt(), SIGKILL);
    QVERIFY(isEnded);
}

void ProgramTest::runFindsTheInstalledPreloadLibrary()
{
    QTemporaryDir prefix;
    QDir root(prefix.path());
    QVERIFY(root.mkpath("bin"));
    const QString libraries = QDir::cleanPath(root.filePath("bin/" SIMNODE_PRELOAD_FROM_BINDIR));
    QVERIFY(root.mkpath(libraries));
    QVERIFY(QFile::copy(SIMNODE_EXECUTABLE, root.filePath("bin/simnode")));
    const QString library = libraries + "/libsimnode-preload.so";
    QVERIFY(QFile::copy(SIMNODE_PRELOAD_LIBRARY, library));
    const Result result =
        runBuilt(root.filePath("bin/simnode"), {"run", "--", "sh", "-c", "echo $LD_PRELOAD"});
    QCOMPARE(result.output, library.toUtf8() + "\n");
}

void ProgramTest::runTakesThePreloadLibraryFromTheEnvironment()
{
    QTemporaryDir folder;
    const QString library = folder.filePath("other.so");
    QVERIFY(QFile::copy(SIMNODE_PRELOAD_LIBRARY, library));
    QProcessEnvironment environment = cleanEnvironment();
    environment.insert("SIMNODE_PRELOAD", library);
    const Result result = runSimnode({"run", "--", "sh", "-c", "echo $LD_PRELOAD"}, environment);
    QCOMPARE(result.output, library.toUtf8() + "\n");
}

void ProgramTest::runWithoutAPreloadLibrarySaysSo()
{
    QTemporaryDir folder;
    const QString alone = folder.filePath("simnode");
    QVERIFY(QFile::copy(SIMNODE_EXECUTABLE, alone));
    const Result result = runBuilt(alone, {"run", "--", "true"});
    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.errors.contains("cannot find libsimnode-preload.so"), result.errors);
    QVERIFY2(result.errors.contains("set SIMNODE_PRELOAD"), result.errors);
}

void ProgramTest::runServesItsProgramFromAFolderWithABlankAndAColon()
{
    QTemporaryDir folder(QDir::tempPath() + "/usb häl: XXXXXX");
    QTemporaryDir links;
    const QString library = folder.filePath("preload.so");
    QVERIFY(QFile::copy(SIMNODE_PRELOAD_LIBRARY, library));
    QProcessEnvironment environment = cleanEnvironment();
    environment.insert("SIMNODE_PRELOAD", library);
    environment.insert("TMPDIR", links.path());
    const Result result = runSimnode(QStringList{"run", "--"} + wordsToRun(SIMNODE_PROBE) +
                                         QStringList{"open", "close"},
                                     environment);
    QCOMPARE(result.errors, QByteArray());
    QCOMPARE(result.output, QByteArray("open 0 -\nclose 0 -\n"));
    QCOMPARE(entriesOf(links.path()), QStringList());
}

void ProgramTest::runRefusesWhereItCanMakeNoPathThatTheLoaderTakes()
{
    QTemporaryDir folder(QDir::tempPath() + "/usb häl: XXXXXX");
    const QString library = folder.filePath("preload.so");
    QVERIFY(QFile::copy(SIMNODE_PRELOAD_LIBRARY, library));
    QProcessEnvironment environment = cleanEnvironment();
    environment.insert("SIMNODE_PRELOAD", library);
    environment.insert("TMPDIR", folder.path());
    const Result result = runSimnode({"run", "--", "echo", "ran"}, environment);
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.output, QByteArray());
    QVERIFY2(result.errors.contains("set TMPDIR to a folder without"), result.errors);
}

void ProgramTest::runRefusesALibraryThatCannotBeLoaded()
{
    QTemporaryDir folder;
    QProcessEnvironment environment = cleanEnvironment();
    environment.insert("SIMNODE_PRELOAD", writeFile(folder, "broken.so", "no library"));
    const Result result = runSimnode({"run", "--", "echo", "ran"}, environment);
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.output, QByteArray());
    QVERIFY2(result.errors.contains("cannot load the preload library"), result.errors);
}

void ProgramTest::controlTellsTheAnswerByItsExitStatus()
{
    QTemporaryDir folder;
    Daemon daemon(folder.path());
    QVERIFY(daemon.isReady());
    const Result good = runSimnode({"control", "--dir", folder.path(), "read", "fail", "EIO", "3"});
    QCOMPARE(good.exitCode, 0);
    QCOMPARE(good.output, QByteArray("ok\n"));
    const Result bad = runSimnode({"control", "--dir", folder.path(), "read", "fail", "EFOO"});
    QCOMPARE(bad.exitCode, 1);
    QVERIFY2(bad.output.startsWith("error: 'EFOO' is no errno name"), bad.output);
}

void ProgramTest::controlWithoutADaemonFails()
{
    QTemporaryDir folder;
    const Result result = runSimnode({"control", "--dir", folder.path(), "status"});
    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.errors.contains("no simnode serves " + folder.path().toUtf8()), result.errors);
}

void ProgramTest::wrongCommandLinesSayHowTheyShouldBe_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("why");
    const auto row = [](const char *name, const QStringList &arguments, const char *why) {
        QTest::newRow(name) << arguments << QByteArray(why);
    };
    row("no command", {},
        "simnode: the command is missing, it should be one of serve, run, control");
    row("unknown command", {"fly"},
        "simnode: there is no command \"fly\", it should be one of serve, run, control");
    row("unknown option", {"serve", "--dir", "x", "--fly"},
        "simnode: there is no option \"--fly\"");
    row("misspelt option", {"serve", "--dirr", "x"}, "simnode: there is no option \"--dirr\"");
    row("serve without a folder", {"serve"}, "simnode: --dir is missing");
    const char noFolder[] = "simnode: --dir needs the path of a folder, not \"\"";
    row("serve with an empty folder", {"serve", "--dir", ""}, noFolder);
    row("run with an empty folder", {"run", "--dir", "", "x"}, noFolder);
    row("control with an empty folder", {"control", "--dir", "", "x"}, noFolder);
    row("run without a program", {"run"}, "simnode: PROGRAM is missing");
    row("control without a folder", {"control", "status"}, "simnode: --dir is missing");
    row("control without a command", {"control", "--dir", "x"}, "simnode: COMMAND is missing");
    row("unknown result", {"run", "--timeout-result", "two", "--", "true"},
        "simnode: --timeout-result needs zero or error, not \"two\"");
}

void ProgramTest::wrongCommandLinesSayHowTheyShouldBe()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, why);
    const Result result = runSimnode(arguments);
    QCOMPARE(result.exitCode, 2);
    const QString command = arguments.value(0) == "fly" ? QString() : arguments.value(0);
    const QString name = ("simnode " + command).trimmed();
    QCOMPARE(result.errors, why + ("\nTry \"" + name + " --help\".\n").toUtf8());
}

void ProgramTest::helpIsNoError()
{
    const Result result = runSimnode({"run", "--help"});
    QCOMPARE(result.exitCode, 0);
    QVERIFY2(result.output.contains("--timeout-result zero|error"), result.output);
    QVERIFY2(result.output.contains("by default zero"), result.output);
}

void ProgramTest::versionIsNoError()
{
    const Result result = runSimnode({"--version"});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.output, QByteArray("simnode " PROJECT_VERSION "\n"));
}

void ProgramTest::theHelpOfControlListsTheCommands()
{
    const Result result = runSimnode({"control", "--help"});
    QCOMPARE(result.exitCode, 0);
    for (const char *usage : {"on open|read|write|ioctl|close K COMMAND...", "open stuck [N]",
                              "ioctl fail ERRNO [N]", "close fail ERRNO [N]", "latency MS"})
        QVERIFY2(result.output.contains(QByteArray(usage) + "\n"), result.output);
}

void ProgramTest::thePreloadLibraryExportsTheWrappedNamesOnly()
{
    const Result result =
        runProgram("nm", {"-D", "--defined-only", "--format=posix", SIMNODE_PRELOAD_LIBRARY});
    QCOMPARE(result.exitCode, 0);
    QStringList names;
    for (const QByteArray &line : result.output.trimmed().split('\n'))
        names << QString::fromLatin1(line.left(line.indexOf(' ')));
    names.sort();
    QStringList expected{"__open64_2", "__open_2", "__openat64_2", "__openat_2", "__read_chk",
                         "close",      "ioctl",    "open",         "open64",     "openat",
                         "openat64",   "read",     "write",        "dup",        "dup2",
                         "dup3",       "fcntl",    "fcntl64",      "recvmsg",    "recvmmsg"};
#if __TIMESIZE == 32
    expected << "__ioctl_time64"
             << "__fcntl_time64"
             << "__recvmsg64"
             << "__recvmmsg64";
#endif
    expected.sort();
    QCOMPARE(names, expected);
}

void ProgramTest::thePreloadLibraryNeedsTheCLibraryOnly()
{
    const Result result = runProgram("objdump", {"-p", SIMNODE_PRELOAD_LIBRARY});
    QCOMPARE(result.exitCode, 0);
    QByteArray needed = result.output;
#ifdef __arm__
    needed.replace("NEEDED               libgcc_s.so.1",
                   ""); // its unwind tables name routines of it
#endif
    QVERIFY2(needed.contains("NEEDED               libc.so.6"), result.output);
    QVERIFY2(needed.count("NEEDED") == 1, result.output);
}

QTEST_GUILESS_MAIN(ProgramTest)
#include "tst_program.moc"
