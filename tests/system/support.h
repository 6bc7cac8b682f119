// What the system, simulator and bridge tests share: the built driver, the
// programs run as a script runs them, and waiting on real time.
#ifndef KQ71_TEST_SYSTEM_SUPPORT_H
#define KQ71_TEST_SYSTEM_SUPPORT_H

#include "driver_library.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QProcess>
#include <QtCore/QStringList>

#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace kq71test {

// The driver's planning lines would drown the test output.
inline const bool quietDebug = qputenv("QT_LOGGING_RULES", "*.debug=false");

// The built driver, loaded on first use.
inline kq71rt::DriverLibrary &driver()
{
    static kq71rt::DriverLibrary lib;
    static QString error;
    if (!lib.loaded() && error.isEmpty())
        lib.load(KQ71_DRIVER_FILE, &error);
    EXPECT_TRUE(lib.loaded()) << qPrintable(error);
    return lib;
}

struct Outcome {
    int status = -1;  // -1: crashed, or killed when it did not end in time
    QString out, err;

    // Every stdout line as a JSON object, an empty one for a line that is not.
    QList<QJsonObject> objects() const
    {
        QList<QJsonObject> list;
        for (const QString &line : out.split('\n', Qt::SkipEmptyParts))
            list << QJsonDocument::fromJson(line.toUtf8()).object();
        return list;
    }
};

inline QString writeFile(const QString &path, const QByteArray &text)
{
    QFile f(path);
    EXPECT_TRUE(f.open(QIODevice::WriteOnly) && f.write(text) == text.size());
    return path;
}

// Starts a program with KQ71_DRIVER naming the built driver, and env's
// NAME=VALUE entries, in the test's environment.
inline void start(QProcess &p, const QString &program, const QStringList &args, const QStringList &env = {})
{
    QProcessEnvironment e = QProcessEnvironment::systemEnvironment();
    e.insert("KQ71_DRIVER", KQ71_DRIVER_FILE);
    for (const QString &entry : env)
        e.insert(entry.section('=', 0, 0), entry.section('=', 1));
    p.setProcessEnvironment(e);
    p.start(program, args);
}

inline Outcome finish(QProcess &p, int timeoutMs = 20000)
{
    Outcome r;
    if (!p.waitForFinished(timeoutMs)) {
        p.kill();
        p.waitForFinished();
    } else if (p.exitStatus() == QProcess::NormalExit) {
        r.status = p.exitCode();
    }
    r.out = QString::fromUtf8(p.readAllStandardOutput());
    r.err = QString::fromUtf8(p.readAllStandardError());
    return r;
}

inline Outcome run(const QString &program, const QStringList &args)
{
    QProcess p;
    start(p, program, args);
    return finish(p);
}

inline Outcome runKq71(const QStringList &args) { return run(KQ71_CLI_FILE, args); }

inline void expectIn(const QString &stream, const QStringList &texts)
{
    for (const QString &t : texts)
        EXPECT_TRUE(stream.contains(t)) << "no \"" << t.toStdString() << "\" in:\n" << stream.toStdString();
}

// One run of a program: its exit status, and texts on its stdout when it
// succeeds, on its stderr when not.
struct RunCase {
    QStringList args;
    int status;
    QStringList texts;
};

// With --json, every stdout line must be a JSON object.
inline void expectRuns(const QString &program, const std::vector<RunCase> &runs)
{
    for (const RunCase &c : runs) {
        SCOPED_TRACE(c.args.join(' ').toStdString());
        const Outcome r = run(program, c.args);
        EXPECT_EQ(r.status, c.status) << r.err.toStdString();
        expectIn(c.status == 0 ? r.out : r.err, c.texts);
        for (const QJsonObject &o : r.objects())
            EXPECT_FALSE(c.args.contains("--json") && o.isEmpty()) << r.out.toStdString();
    }
}

// Calls step() until done() holds or timeoutMs of real time pass.
inline bool waitUntil(const std::function<bool()> &done, const std::function<void()> &step, int timeoutMs = 10000)
{
    QElapsedTimer clock;
    clock.start();
    while (!done() && clock.elapsed() <= timeoutMs)
        step();
    return done();
}

// kq71-sim as a child process; `first` says where it listens:
// "PTY /dev/pts/N" or "TCP 127.0.0.1:PORT".
struct SimProcess : QProcess {
    explicit SimProcess(const QStringList &args)
    {
        setStandardErrorFile(QProcess::nullDevice());
        start(KQ71_SIM_EXE, args);
        while (waitForStarted() && !canReadLine() && waitForReadyRead(5000)) {
        }
        first = QString::fromLocal8Bit(readLine()).trimmed();
    }
    ~SimProcess() override
    {
        if (state() != NotRunning && !stop())
            kill();
        waitForFinished();
    }
    bool stop() // SIGTERM; the exit status is then the test's to check
    {
        terminate();
        return waitForFinished(3000);
    }
    QString first;
};

} // namespace kq71test

#endif
