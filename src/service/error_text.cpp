#include "kq71_protocol.h"
#include "protocol.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace {

// Z k and V k share one interleaved area, so a Z job at an odd address is
// really a V register; name it as the user knows it.
QString addressPart(const QString &regName, int address)
{
    if (regName == QLatin1String("Z")) {
        if (address % 2 == 1)
            return QString::fromLatin1("V%1").arg((address - 1) / 2);
        return QString::fromLatin1("Z%1").arg(address / 2);
    }
    return QString::fromLatin1("%1%2").arg(regName, QString::number(address));
}

} // namespace

QString getErrorInfo(const QByteArray &reply)
{
    int station, address, length;
    QString regName;
    {
        ServiceLock lock;
        if (driver.frameQueue.isEmpty())
            return QString();
        const VARIABLE &var = driver.frameQueue.first().var;
        station = var.station;
        regName = var.regName;
        address = var.address;
        length = var.length;
    }
    // One pass over each template, so a '%' in a register name is not
    // taken for a placeholder.
    QString text = QString::fromLatin1("%1#%2(%3)")
                       .arg(QString::number(station), addressPart(regName, address), QString::number(length));
    if (reply.size() == EXCEPTION_REPLY_LEN) {
        const unsigned char function = static_cast<unsigned char>(reply.at(1));
        if (function > EXCEPTION_FLAG)
            text += QString::fromLatin1(",error code:%1").arg(function - EXCEPTION_FLAG);
    }
    return text;
}
