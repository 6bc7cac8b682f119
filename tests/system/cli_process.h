// The kq71 program as a child process, as a script or a person runs it.
#ifndef KQ71_TEST_CLI_PROCESS_H
#define KQ71_TEST_CLI_PROCESS_H

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QProcess>
#include <QtCore/QStringList>

namespace kq71test {

struct Outcome {
    int status = -1;  // -1: killed, or did not end in time
    QString out, err;

    // Every line of stdout as a JSON object; a line that is not one gives an
    // empty object with "notJson" holding the line.
    QList<QJsonObject> objects() const
    {
        QList<QJsonObject> list;
        for (const QString &line : out.split('\n', Qt::SkipEmptyParts)) {
            const QJsonDocument d = QJsonDocument::fromJson(line.toUtf8());
            list << (d.isObject() ? d.object() : QJsonObject{{"notJson", line}});
        }
        return list;
    }
};

// A started kq71 (KQ71_DRIVER set to the built driver).
inline void startKq71(QProcess &p, const QStringList &args)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("KQ71_DRIVER", KQ71_DRIVER_FILE);
    p.setProcessEnvironment(env);
    p.start(KQ71_CLI_FILE, args);
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
    r.out = QString::fromLocal8Bit(p.readAllStandardOutput());
    r.err = QString::fromLocal8Bit(p.readAllStandardError());
    return r;
}

inline Outcome runKq71(const QStringList &args, int timeoutMs = 20000)
{
    QProcess p;
    startKq71(p, args);
    return finish(p, timeoutMs);
}

} // namespace kq71test

#endif
