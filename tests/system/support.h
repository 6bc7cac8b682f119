// What the system, simulator and bridge tests share: the built driver, the
// programs run as a script runs them, and waiting on real time.
#ifndef KQ71_TEST_SYSTEM_SUPPORT_H
#define KQ71_TEST_SYSTEM_SUPPORT_H

#include "driver_library.h"

#include <QtCore/QJsonObject>
#include <QtCore/QProcess>
#include <QtCore/QStringList>

#include <functional>
#include <vector>

namespace kq71test {

// The built driver, loaded on first use.
kq71rt::DriverLibrary &driver();

struct Outcome {
    int status = -1;  // -1: crashed, or killed when it did not end in time
    QString out, err;
    // Every stdout line as a JSON object; {"notJson": line} for one that is not.
    QList<QJsonObject> objects() const;
};

// Starts a program with KQ71_DRIVER naming the built driver, and env's
// NAME=VALUE entries, in the test's environment.
void start(QProcess &p, const QString &program, const QStringList &args, const QStringList &env = {});
Outcome finish(QProcess &p, int timeoutMs = 20000);
Outcome run(const QString &program, const QStringList &args);
inline Outcome runKq71(const QStringList &args) { return run(KQ71_CLI_FILE, args); }

// One run of a program: its exit status, and texts on its stdout when it
// succeeds, on its stderr when not. With --json, every stdout line must be a
// JSON object.
struct RunCase {
    QStringList args;
    int status;
    QStringList texts;
};
void expectRuns(const QString &program, const std::vector<RunCase> &runs);

void expectIn(const QString &stream, const QStringList &texts);
// Collects the process's stdout in *seen until it holds text.
bool waitForOutput(QProcess &p, QByteArray *seen, const char *text, int timeoutMs = 10000);
// Calls step() until done() holds or timeoutMs of real time pass.
bool waitUntil(const std::function<bool()> &done, const std::function<void()> &step, int timeoutMs = 10000);

} // namespace kq71test

#endif
