// Index of the cache: (station, register name, address) -> position in the
// cache list. Open addressing over a flat array, so a lookup costs a hash and
// a short probe whatever the cache size, and an entry costs 16 bytes.
#ifndef SERVICE_DATA_INDEX_H
#define SERVICE_DATA_INDEX_H

#include <QtCore/QHash>
#include <QtCore/QString>
#include <QtCore/QVector>

class DataAreaIndex {
public:
    DataAreaIndex();

    // Small id of a register name that records carry, or -1 for a name no
    // record has; addName gives a name its id when its first record is made.
    int findNameId(const QString &regName) const;
    int addName(const QString &regName);

    // Position stored for the key, or -1.
    int find(int station, int nameId, int address) const;
    // Record position for a key not yet present.
    void insert(int station, int nameId, int address, int position);

    void clear();
    int size() const { return count_; }
    // Changes at every clear: name ids and positions from before are void.
    unsigned generation() const { return generation_; }

private:
    struct Slot {
        int station;
        int nameId;
        int address;
        int position; // -1: empty
    };

    static unsigned hashKey(int station, int nameId, int address);
    void grow();

    QVector<Slot> slots_;
    int count_;
    unsigned generation_;
    QHash<QString, int> names_;
};

#endif
