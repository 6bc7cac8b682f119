// Links the installed driver, plans one watch key as the runtime does, asks
// for its first request frame and prints the file the loader took the driver
// from.
#include <vorn_kq71_ap.h>

#include <dlfcn.h>
#include <stdio.h>

#include <vector>

int main()
{
    Dl_info where;
    if (!dladdr(reinterpret_cast<void *>(&intf_getVersion), &where) || !where.dli_fname) {
        fprintf(stderr, "the driver's entry points are not in a loaded file\n");
        return 1;
    }
    const QString version = intf_getVersion();
    std::vector<unsigned char> sharedMem(KQ71_SHARED_MEM_MIN), recipe(1024);
    int status = -1;
    QMutex mutex;
    intf_initProperty(&sharedMem[0], 0, &recipe[0], &status, "1#0#0#3#10", &mutex);

    KEY_ADDRESS key;
    key.station = 1;
    key.regName = QString::fromLatin1("D");
    key.address = 100;
    key.length = 4;
    QList<KEY_ADDRESS> keys;
    keys.append(key);
    const int blocks = intf_addrMerge(&keys);
    FRAME_PRO frame;
    const int sent = intf_getSendFrame(&frame);

    printf("%s %s blocks=%d frame=%d bytes\n", where.dli_fname, version.toLatin1().constData(), blocks,
           sent ? frame.sendLen : 0);
    // A read of D100..D103 from station 1: 8 bytes.
    const bool ok = version == QString::fromLatin1("2.0.0.0") && status == 0 && blocks == 1 && sent &&
                    frame.sendLen == 8 && frame.frame[0] == 1;
    return ok ? 0 : 1;
}
