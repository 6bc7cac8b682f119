// The register table of the KQ71 family: names, address syntax and ranges,
// value kinds, and the base of each register's area in the PLC memory map.
// Built once at load, never changed. Every module reads this one copy.
#ifndef KQ71_REGISTER_TABLE_H
#define KQ71_REGISTER_TABLE_H

#include <QtCore/QString>

enum {
    REG_COUNT = 19,
    FALLBACK_ROW = 19 // row used for names outside REG_LIST (16-bit words)
};

// Columns of ADDRESS_RANGE_PRO, in table order.
enum RangeColumn { COL_FORMAT = 0, COL_MIN, COL_MAX, COL_KIND, COL_ACCESS, COL_WIDTH, RANGE_COLUMNS };

// Names as plain text, constant-initialised, for code that runs during static
// initialisation of other modules (the driver object's constructor).
extern const char *const REG_NAME_TEXT[REG_COUNT];
extern const QString REG_LIST[REG_COUNT];
extern const QString ADDRESS_RANGE_PRO[REG_COUNT + 1][RANGE_COLUMNS];
extern const int ADDRESS_REG_OFFSET[REG_COUNT];

extern const QString PROCOTOL_DEFALT_COM_PAR;
extern const QString PROCOTOL_DEFALT_IP_PAR;
extern const QString PROCOTOL_NAME;
extern const QString PROCOTOL_VERSION;
extern const QString PROCOTOL_PAR_HMI_SET_MODE;

// Index 0..18 of the first REG_LIST entry equal to name (exact), or -1.
int getIndexFromRegName(const QString &name);

// Row of ADDRESS_RANGE_PRO for a name: its index, or FALLBACK_ROW when unknown.
int rangeRowFor(const QString &name);

// Sort key (station * 19 + register index) * 65535 + address, 32-bit wrapping.
int getRegAddressWeight(int station, const QString &regName, int address, int length);

// Integer value of the kind / width column of a row (base 10).
int rowKind(int row);
int rowWidth(int row);

#endif
