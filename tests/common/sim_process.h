// The kq71-sim program as a child process, for the tests that talk to it as a
// client would. KQ71_SIM_EXE names the built program.
#ifndef KQ71_TEST_SIM_PROCESS_H
#define KQ71_TEST_SIM_PROCESS_H

#include <QtCore/QProcess>
#include <QtCore/QStringList>

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
    // SIGTERM; the exit status is then the test's to check.
    bool stop()
    {
        terminate();
        return waitForFinished(3000);
    }
    QString first; // where it listens: "PTY /dev/pts/N" or "TCP 127.0.0.1:PORT"
};

#endif
