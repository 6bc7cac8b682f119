// Links the installed driver, checks an address as the panel editor does,
// plans one watch key, asks for its first request frame and prints the file
// the loader took the driver from.
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

    QString reg = QString::fromLatin1("D"), text = QString::fromLatin1("100");
    int address = -1;
    const int checked = intf_checkAddr(&reg, &text, &address, 0, 1, 0);

    std::vector<unsigned char> sharedMem(KQ71_SHARED_MEM_MIN), recipe(1024);
    int status = -1;
    QMutex mutex;
    intf_initProperty(&sharedMem[0], 0, &recipe[0], &status, "1#0#0#3#10", &mutex);

    QList<KEY_ADDRESS> keys;
    KEY_ADDRESS key;
    key.station = 1;
    key.regName = reg;
    key.address = address;
    key.length = 4;
    keys.append(key);
    const int blocks = intf_addrMerge(&keys);
    FRAME_PRO frame;
    const int sent = intf_getSendFrame(&frame);

    printf("%s %s D100=%d check=%d blocks=%d frame=%d bytes\n", where.dli_fname, version.toLatin1().constData(),
           address, checked, blocks, sent ? frame.sendLen : 0);
    // A read of D100..D103 from station 1: 8 bytes.
    const bool ok = version == QString::fromLatin1("2.0.0.0") && status == 0 && checked == 0 && address == 100 &&
                    blocks == 1 && sent && frame.sendLen == 8 && frame.frame[0] == 1;
    return ok ? 0 : 1;
}
