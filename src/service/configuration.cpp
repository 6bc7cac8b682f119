// The runtime's configuration: its callback, its property text and its pointers.
#include "vorn_kq71_ap.h"
#include "driver_state.h"

#include <QtCore/QStringList>

void intf_setAddrValueChangeCallBack(ValueChangeCallBack callBack)
{
    ServiceLock lock;
    driver.valueChangeCallBack = callBack;
}

int intf_initProperty(unsigned char *sharedMem, unsigned char *, unsigned char *recipeBuf, int *status,
                      const char *property, QMutex *mutex)
{
    ServiceLock lock;
    if (status)
        *status = 0;
    // Fields: device id # cache-only writes # (unused) # retry limit # merge gap.
    const QStringList fields = QString::fromLatin1(property ? property : "").split(QLatin1Char('#'));
    if (fields.size() >= 5) {
        driver.deviceId = fields.at(0).toInt(0, 10);
        driver.cacheOnlyWrites = fields.at(1).toInt(0, 10);
        driver.retryLimit = fields.at(3).toInt(0, 10);
        driver.mergeGap = fields.at(4).toInt(0, 10);
    }
    driver.sharedMem = sharedMem;
    driver.recipeBuf = recipeBuf;
    driver.sharedMemMutex = mutex;

    driver.clearRunState();
    driver.maxWordsPerPiece = driver.mergeGap;
    // Wraps like the 32-bit product it is; limits below 1 are read as one block.
    driver.maxBitsPerPiece = int(unsigned(driver.mergeGap) * 8u);
    return 1;
}
