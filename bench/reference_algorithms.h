// The literal algorithms a plain driver would run: a cache lookup that scans
// the list from the start, and a planner that bubble-sorts the watch list.
// The benchmarks measure the driver against them; the unit tests check that
// the driver's results are the same as theirs.
#ifndef KQ71_BENCH_REFERENCE_ALGORITHMS_H
#define KQ71_BENCH_REFERENCE_ALGORITHMS_H

#include "driver_internals.h"

#include <QtCore/QList>
#include <QtCore/QString>

namespace kq71ref {

// Find-or-create: the index of the first record with this key, scanning from
// index 0 (station, then name, then address); a new record is appended when
// none matches.
int linearIndexOfDataArea(QList<_DATA_> &areas, int station, const QString &regName, int address);

// The watch list planned into cyclic read blocks, step by step: convert each
// key to the register's units, bubble-sort by weight, merge touching keys
// into blocks of at most 128 units, then bridge gaps of at most mergeGap
// units. Each block keeps every field of the key it started from. Two rules
// of the driver stand in place of the plain steps: a key that names no unit
// (or more than one call may name) is left out (or cut), and a block that
// takes a key starting before it keeps its own end.
QList<KEY_ADDRESS> bubblePlan(QList<KEY_ADDRESS> keys, int mergeGap);

} // namespace kq71ref

#endif
