// A mosquitto broker of the test's own on 127.0.0.1 and a free port.
#ifndef KQ71_TESTS_BRIDGE_BROKER_H
#define KQ71_TESTS_BRIDGE_BROKER_H

#include "support.h"

#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>

namespace kq71test {

struct TestBroker {
    bool password = false;  // user "plc" with password "secret", no anonymous access
    bool tls = false;       // a CA made for the test (ca.crt); server certificate for 127.0.0.1
    bool persistence = false;
    int maxPacketBytes = 0;

    ~TestBroker() { stop(); }
    // Starts mosquitto unless it runs, on the same port when it starts again,
    // and waits (bounded) until it takes connections.
    bool start(QString *error)
    {
        if (process.state() == QProcess::Running)
            return true;
        const QString d = dir.path();
        QFile ext(d + "/san.ext"), conf(d + "/mosquitto.conf");
        if (port == 0) {
            QTcpServer free;
            free.listen(QHostAddress::LocalHost, 0);
            port = free.serverPort();
            QList<QStringList> tools;
            if (tls && ext.open(QIODevice::WriteOnly) && ext.write("subjectAltName=IP:127.0.0.1\n") > 0 && ext.flush())
                tools << QString("openssl req -x509 -newkey rsa:2048 -nodes -keyout %1/ca.key -out %1/ca.crt "
                                 "-days 2 -subj /CN=ca").arg(d).split(' ')
                      << QString("openssl req -newkey rsa:2048 -nodes -keyout %1/server.key -out %1/server.csr "
                                 "-subj /CN=127.0.0.1").arg(d).split(' ')
                      << QString("openssl x509 -req -in %1/server.csr -CA %1/ca.crt -CAkey %1/ca.key -CAcreateserial "
                                 "-out %1/server.crt -days 2 -extfile %1/san.ext").arg(d).split(' ');
            if (password)
                tools << QString("mosquitto_passwd -b -c %1/passwd plc secret").arg(d).split(' ');
            for (QStringList tool : tools) {
                const Outcome r = run(tool.takeFirst(), tool);
                if (r.status != 0) {
                    *error = tool.join(' ') + ": " + r.err;
                    return false;
                }
            }
        }
        // Run as whoever runs the test: as root, mosquitto would switch to its
        // own user, who cannot read the test's files.
        QStringList lines{QString("listener %1 127.0.0.1").arg(port), "user root", "set_tcp_nodelay true",
                          password ? "allow_anonymous false\npassword_file %1/passwd" : "allow_anonymous true"};
        if (tls)
            lines << "cafile %1/ca.crt\ncertfile %1/server.crt\nkeyfile %1/server.key";
        if (persistence)
            lines << "persistence true\npersistence_location %1/";
        if (maxPacketBytes > 0)
            lines << QString("max_packet_size %1").arg(maxPacketBytes);
        const QByteArray text = lines.join('\n').replace("%1", d).toUtf8() + '\n';
        if (!conf.open(QIODevice::WriteOnly) || conf.write(text) != text.size() || !conf.flush()) {
            *error = "cannot write the broker's configuration";
            return false;
        }
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.setStandardOutputFile(d + "/mosquitto.log", QIODevice::Append);
        process.start("mosquitto", {"-c", conf.fileName()});
        const auto listens = [&] {
            QTcpSocket probe;
            probe.connectToHost(QHostAddress::LocalHost, quint16(port));
            return probe.waitForConnected(500) || process.state() == QProcess::NotRunning;
        };
        if (process.waitForStarted(10000) && waitUntil(listens, [] {}, 10000) && process.state() == QProcess::Running)
            return true;
        QFile log(d + "/mosquitto.log");
        *error = "mosquitto does not listen: " +
                 (log.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(log.read(4000)) : process.errorString());
        return false;
    }
    void stop()
    {
        process.terminate();
        if (!process.waitForFinished(5000))
            process.kill();
        process.waitForFinished(2000);
    }

    QString file(const char *name) const { return dir.filePath(name); }

    QTemporaryDir dir;
    int port = 0;
    QProcess process;
};

} // namespace kq71test

#endif
