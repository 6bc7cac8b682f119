// Descriptive entry points: what the driver tells the runtime about itself.
#include "vorn_kq71_ap.h"
#include "driver_state.h"
#include "register_table.h"

#include <QtCore/QStringList>

extern "C" {

void intf_getProtocolType(int *type)
{
    if (type)
        *type = 0;
}

void intf_getDriverParameter(QString *text)
{
    if (!text)
        return;
    // Single-pass substitution: a "%n" inside one of the default strings must
    // not be taken for a placeholder.
    *text = QString::fromLatin1("%1,%2,%3,%4,%5,%6,%7")
                .arg(QString::number(0), PROCOTOL_DEFALT_COM_PAR, QString::number(0), QString::number(1),
                     PROCOTOL_DEFALT_IP_PAR, PROCOTOL_NAME, QStringList(driver.regNames).join(QLatin1String(",")));
}

void intf_getDriverPropertyPage(QString *page)
{
    if (page)
        *page = PROCOTOL_PAR_HMI_SET_MODE;
}

void intf_SetDriverPropertyPage(QString *page)
{
    if (!page)
        return;
    const QString copy = *page;
    ServiceLock lock;
    driver.propertyPage = copy;
}

QString intf_getVersion()
{
    return PROCOTOL_VERSION;
}

} // extern "C"
