// One-off reads queued by the runtime: pieces, refresh of waiting jobs, bounds.
#include "test_support.h"

#include <tuple>

using namespace kq71test;

namespace {

using Job = std::tuple<int, std::string, int, int>; // id, register, address, length (station 1)

Job asJob(const VARIABLE &v) { return Job{v.id, v.regName.toStdString(), v.address, v.length}; }

class ConditionRead : public DriverTest {
protected:
    void add(KEY_ADDRESS k, int id) { EXPECT_EQ(1, intf_addConditionRead(&k, id)); }
    std::vector<Job> queued()
    {
        std::vector<Job> out;
        for (const VARIABLE &v : driver.conditionReads)
            out.push_back(asJob(v));
        return out;
    }
};

struct PieceCase {
    const char *property;
    KEY_ADDRESS key;
    std::vector<Job> jobs;
};
void PrintTo(const PieceCase &c, std::ostream *os) { *os << c.key.regName.toStdString() << " " << c.property; }

class ConditionPieces : public ConditionRead, public ::testing::WithParamInterface<PieceCase> {};

TEST_P(ConditionPieces, KeyIsQueuedInPiecesCountedInTheRegistersUnits)
{
    configure(GetParam().property);
    add(GetParam().key, 5);
    EXPECT_EQ(GetParam().jobs, queued());
    EXPECT_EQ(GetParam().jobs.back(), asJob(driver.lastCondition));
}

INSTANTIATE_TEST_SUITE_P(
    Limits, ConditionPieces,
    ::testing::Values(
        PieceCase{"1#0#0#3#64", key(1, "D", 10, 150), {Job{5, "D", 10, 64}, Job{5, "D", 74, 64}, Job{5, "D", 138, 22}}},
        PieceCase{"1#0#0#3#64", key(1, "M", 0, 600, -1), {Job{5, "M", 0, 512 * 16}, Job{5, "M", 512, 88 * 16}}},
        PieceCase{"1#0#0#3#64", key(1, "200CC", 200, 3), {Job{5, "200CC", 200, 1}}},
        // bits inside words read the words holding them, piece after piece
        PieceCase{"1#0#0#3#2", key(1, "D_bit", 35, 20, -1), {Job{5, "D", 2, 2}, Job{5, "D", 3, 1}}},
        // without a usable limit, pieces are blocks of 128 units
        PieceCase{"1#0#0#3#0", key(1, "D", 0, 300), {Job{5, "D", 0, 128}, Job{5, "D", 128, 128}, Job{5, "D", 256, 44}}},
        PieceCase{"1#0#0#3#-1", key(1, "M", 0, 200, -1), {Job{5, "M", 0, 128 * 16}, Job{5, "M", 128, 72 * 16}}}));

TEST_F(ConditionRead, RepeatedKeyRefreshesAWaitingJobButNeverTheHead)
{
    add(key(1, "D", 0, 1), 1);
    add(key(1, "D", 0, 1), 2);
    add(key(1, "D", 10, 1), 3);
    add(key(1, "D", 10, 1), 4);
    EXPECT_EQ((std::vector<Job>{Job{1, "D", 0, 1}, Job{2, "D", 0, 1}, Job{4, "D", 10, 1}}), queued());
}

TEST_F(ConditionRead, FullQueueReusesItsLastSlot)
{
    for (int i = 0; i < MAX_QUEUED_JOBS; ++i)
        add(key(1, "D", i, 1), i);
    add(key(1, "D", 9000, 1), 7);
    ASSERT_EQ(MAX_QUEUED_JOBS, driver.conditionReads.size());
    EXPECT_EQ((Job{7, "D", 9000, 1}), asJob(driver.conditionReads.at(512)));
    EXPECT_EQ((Job{511, "D", 511, 1}), asJob(driver.conditionReads.at(511)));
}

} // namespace
