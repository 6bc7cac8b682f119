// The literal algorithms that the benchmarks race against must give the
// driver's results: the same record for every lookup, the same blocks for
// every watch list. Otherwise a speed-up would compare different work.
#include "reference_algorithms.h"
#include "test_support.h"

#include <cstring>
#include <random>

using namespace kq71test;

namespace {

class ReferenceAlgorithms : public DriverTest {};

TEST_F(ReferenceAlgorithms, LinearScanFindsAndCreatesTheSameRecords)
{
    std::mt19937 rng(3);
    // Names that differ by case, a bit-in-word name, an unknown one, none.
    const char *const names[] = {"D", "d", "M", "D_bit", "Q", ""};
    QList<_DATA_> literal;
    ServiceLock lock;
    // Enough distinct keys for the index to grow several times.
    for (int i = 0; i < 6000; ++i) {
        const int station = int(rng() % 3);
        const QString name = QString::fromLatin1(names[rng() % 6]);
        const int address = int(rng() % 500) - 20;
        ASSERT_EQ(kq71ref::linearIndexOfDataArea(literal, station, name, address),
                  getIndexOfDataArea(station, name, address))
            << "lookup " << i << ": " << station << " " << name.toStdString() << " " << address;
    }
    ASSERT_EQ(literal.size(), driver.dataAreas.size());
    for (int i = 0; i < literal.size(); ++i) {
        const _DATA_ &a = literal.at(i), &b = driver.dataAreas.at(i);
        ASSERT_EQ(std::tie(a.station, a.address), std::tie(b.station, b.address)) << "record " << i;
        ASSERT_EQ(a.regName, b.regName) << "record " << i;
    }
}

// A watch list that meets every rule of the planner: equal weights (repeated
// addresses; "Q", an unknown name, weighs as 256CP of the station before),
// station 0 (where unknown names sort last), keys at the 8000 boundary, bits
// in words, 32-bit registers (a key of one word names no unit), keys longer
// than one block and keys that start inside what is left of a cut one.
QList<KEY_ADDRESS> randomWatchList(std::mt19937 &rng, int n)
{
    struct Area {
        const char *reg;
        int lo, span, dataType;
    };
    static const Area areas[] = {
        {"D", 0, 300, 0},      {"D", 7900, 200, 0},    {"M", 7950, 100, -1}, {"X", 0, 64, -1},
        {"200CC", 200, 56, 0}, {"256CP", 256, 100, 0}, {"Q", 256, 100, 0},   {"D_bit", 0, 5000, -1},
        {"TC", 0, 300, 0},
    };
    QList<KEY_ADDRESS> keys;
    for (int i = 0; i < n; ++i) {
        const Area &a = areas[rng() % (sizeof(areas) / sizeof(areas[0]))];
        const int length = 1 + int(rng() % (rng() % 10 == 0 ? 400 : 12));
        KEY_ADDRESS k = key(int(rng() % 3), QString::fromLatin1(a.reg), a.lo + int(rng() % unsigned(a.span)), length,
                            a.dataType);
        // Marks that show which key each block started from.
        k.tag = i;
        k.label = QString::number(i);
        k.data[0] = static_cast<unsigned char>(i);
        k.data[KQ71_DATA_BYTES - 1] = static_cast<unsigned char>(i >> 8);
        keys.append(k);
    }
    return keys;
}

std::string describe(const KEY_ADDRESS &k)
{
    return std::to_string(k.station) + " " + k.regName.toStdString() + " " + std::to_string(k.address) + " +" +
           std::to_string(k.length) + " from key " + std::to_string(k.tag);
}

class BubblePlanner : public DriverTest, public ::testing::WithParamInterface<int> {};

TEST_P(BubblePlanner, PlansTheSameBlocksFromTheSameKeys)
{
    const int gap = GetParam();
    configure(("1#0#0#3#" + std::to_string(gap)).c_str());
    DebugCapture quiet(false);
    std::mt19937 rng(unsigned(100 + gap));
    for (int trial = 0; trial < 60; ++trial) {
        const QList<KEY_ADDRESS> keys = randomWatchList(rng, 1 + int(rng() % 150));
        const QList<KEY_ADDRESS> literal = kq71ref::bubblePlan(keys, gap);

        QList<KEY_ADDRESS> blocks = keys;
        {
            ServiceLock lock;
            addrMerge(blocks, 1);
        }
        ASSERT_EQ(literal.size(), blocks.size()) << "trial " << trial;
        for (int i = 0; i < blocks.size(); ++i) {
            const KEY_ADDRESS &a = literal.at(i), &b = blocks.at(i);
            ASSERT_EQ(describe(a), describe(b)) << "trial " << trial << ", block " << i;
            ASSERT_EQ(a.label, b.label);
            ASSERT_EQ(a.dataType, b.dataType);
            ASSERT_EQ(0, std::memcmp(a.data, b.data, sizeof(a.data))) << "trial " << trial << ", block " << i;
        }

        QList<KEY_ADDRESS> watched = keys;
        ASSERT_EQ(literal.size(), intf_addrMerge(&watched));
        for (int i = 0; i < literal.size(); ++i) {
            const VARIABLE &job = driver.cyclicReads.at(i);
            ASSERT_EQ(std::make_tuple(4, literal.at(i).station, literal.at(i).regName.toStdString(), literal.at(i).address,
                                      literal.at(i).length),
                      std::make_tuple(job.id, job.station, job.regName.toStdString(), job.address, job.length))
                << "trial " << trial << ", job " << i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(MergeGaps, BubblePlanner, ::testing::Values(0, 3, 16, 127));

} // namespace
