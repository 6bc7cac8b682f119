#include "driver_library.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <dlfcn.h>

#include <type_traits>

#ifndef KQ71_BUILT_DRIVER
#define KQ71_BUILT_DRIVER ""
#endif

namespace kq71rt {

namespace {
const char LIBRARY_FILE[] = "libvorn_kq71_ap.so";
}

QString DriverLibrary::locate(const QString &explicitPath)
{
    if (!explicitPath.isEmpty())
        return explicitPath;
    const QString fromEnv = QString::fromLocal8Bit(qgetenv("KQ71_DRIVER"));
    if (!fromEnv.isEmpty())
        return fromEnv;
    if (QCoreApplication::instance()) {
        const QString beside = QCoreApplication::applicationDirPath() + "/" + LIBRARY_FILE;
        if (QFileInfo::exists(beside))
            return beside;
    }
    const QString built = QString::fromLocal8Bit(KQ71_BUILT_DRIVER);
    return QFileInfo::exists(built) ? built : QString::fromLatin1(KQ71_DRIVER_SONAME);
}

bool DriverLibrary::load(const QString &path, QString *error)
{
    if (path.isEmpty()) {
        *error = "no driver library named (use --driver or KQ71_DRIVER)";
        return false;
    }
    // RTLD_NOW: an unresolved symbol in the driver shows here, not mid-exchange.
    void *h = dlopen(QFile::encodeName(path).constData(), RTLD_NOW | RTLD_LOCAL);
    if (!h) {
        const char *why = dlerror();
        *error = QString("cannot load driver %1: %2").arg(path, why ? QString::fromLocal8Bit(why) : "unknown error");
        return false;
    }

    QStringList missing;
    auto resolve = [&](auto &slot, const char *name) {
        void *sym = dlsym(h, name);
        if (!sym)
            missing << name;
        slot = reinterpret_cast<std::remove_reference_t<decltype(slot)>>(sym);
    };
#define KQ71_RESOLVE(member, symbol) resolve(member, #symbol);
    KQ71_ENTRY_POINTS(KQ71_RESOLVE)
#undef KQ71_RESOLVE
    driverObject = dlsym(h, "driver");
    if (!driverObject)
        missing << "driver";

    if (!missing.isEmpty()) {
        *error = QString("driver %1 lacks %2").arg(path, missing.join(", "));
        dlclose(h);
#define KQ71_CLEAR(member, symbol) member = nullptr;
        KQ71_ENTRY_POINTS(KQ71_CLEAR)
#undef KQ71_CLEAR
        driverObject = nullptr;
        return false;
    }
    handle_ = h;
    path_ = path;
    return true;
}

DriverDefaults DriverLibrary::parseParameter(const QString &text)
{
    // 0,BAUD,DATA,PARITY,STOP,0,1,HOST,PORT,NAME,REG...
    DriverDefaults d;
    const QStringList f = text.split(',');
    bool ok = false;
    auto number = [&](int i, int fallback) {
        if (i >= f.size())
            return fallback;
        const int v = f[i].trimmed().toInt(&ok);
        return ok ? v : fallback;
    };
    d.baud = number(1, d.baud);
    d.dataBits = number(2, d.dataBits);
    if (f.size() > 3 && !f[3].trimmed().isEmpty())
        d.parity = f[3].trimmed().toUpper();
    d.stopBits = number(4, d.stopBits);
    if (f.size() > 7)
        d.host = f[7].trimmed();
    d.port = number(8, d.port);
    if (f.size() > 9)
        d.name = f[9].trimmed();
    for (int i = 10; i < f.size(); ++i)
        d.registers << f[i].trimmed();
    return d;
}

DriverDefaults DriverLibrary::defaults() const
{
    QString text;
    if (getDriverParameter)
        getDriverParameter(&text);
    return parseParameter(text);
}

} // namespace kq71rt
