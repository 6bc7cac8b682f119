#include "error_text.h"
#include "driver_state.h"
#include "frames.h"
#include "register_traits.h"

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
                       .arg(QString::number(station), kq71::unitText(regName, address), QString::number(length));
    if (reply.size() == EXCEPTION_REPLY_LEN) {
        const unsigned char function = static_cast<unsigned char>(reply.at(1));
        if (function > EXCEPTION_FLAG)
            text += QString::fromLatin1(",error code:%1").arg(function - EXCEPTION_FLAG);
    }
    return text;
}
