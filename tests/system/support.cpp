#include "support.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QJsonDocument>

#include <gtest/gtest.h>

namespace kq71test {

kq71rt::DriverLibrary &driver()
{
    static kq71rt::DriverLibrary lib;
    static QString error;
    if (!lib.loaded() && error.isEmpty())
        lib.load(KQ71_DRIVER_FILE, &error);
    EXPECT_TRUE(lib.loaded()) << qPrintable(error);
    return lib;
}

QList<QJsonObject> Outcome::objects() const
{
    QList<QJsonObject> list;
    for (const QString &line : out.split('\n', Qt::SkipEmptyParts)) {
        const QJsonDocument d = QJsonDocument::fromJson(line.toUtf8());
        list << (d.isObject() ? d.object() : QJsonObject{{"notJson", line}});
    }
    return list;
}

void start(QProcess &p, const QString &program, const QStringList &args, const QStringList &env)
{
    QProcessEnvironment e = QProcessEnvironment::systemEnvironment();
    e.insert("KQ71_DRIVER", KQ71_DRIVER_FILE);
    for (const QString &entry : env)
        e.insert(entry.section('=', 0, 0), entry.section('=', 1));
    p.setProcessEnvironment(e);
    p.start(program, args);
}

Outcome finish(QProcess &p, int timeoutMs)
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

Outcome run(const QString &program, const QStringList &args)
{
    QProcess p;
    start(p, program, args);
    return finish(p);
}

void expectRuns(const QString &program, const std::vector<RunCase> &runs)
{
    for (const RunCase &c : runs) {
        SCOPED_TRACE(c.args.join(' ').toStdString());
        const Outcome r = run(program, c.args);
        EXPECT_EQ(r.status, c.status) << r.err.toStdString();
        expectIn(c.status == 0 ? r.out : r.err, c.texts);
        for (const QJsonObject &o : r.objects())
            EXPECT_FALSE(c.args.contains("--json") && o.contains("notJson")) << r.out.toStdString();
    }
}

void expectIn(const QString &stream, const QStringList &texts)
{
    for (const QString &t : texts)
        EXPECT_TRUE(stream.contains(t)) << "no \"" << t.toStdString() << "\" in:\n" << stream.toStdString();
}

bool waitForOutput(QProcess &p, QByteArray *seen, const char *text, int timeoutMs)
{
    return waitUntil([&] { return seen->contains(text); },
                     [&] {
                         p.waitForReadyRead(50);
                         *seen += p.readAllStandardOutput();
                     },
                     timeoutMs);
}

bool waitUntil(const std::function<bool()> &done, const std::function<void()> &step, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > timeoutMs)
            return false;
        step();
    }
    return true;
}

} // namespace kq71test
