// Operation history: the exported ring, the 1-to-512 index, and the dump's table.

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qel_history.h"

#include "test_support.h"

namespace {

const std::string kHeader =
    "iTrove Operate History: \n"
    "            Time     Operate     Param1     Param2   Tid TName\n";

// Big enough for the header and 512 lines of any record these tests make.
constexpr uint32_t kRoomy = 128 * 1024;

OperateRec make_rec(uint32_t kind, int32_t time, int32_t tid, const char *name, uint64_t param1,
                    uint64_t param2) {
    OperateRec rec;
    std::memset(&rec, 0, sizeof rec);
    rec.ulOperate = kind;
    rec.ulTime = time;
    rec.ulTid = tid;
    std::snprintf(rec.szTName, sizeof rec.szTName, "%s", name);
    rec.ulParam1 = param1;
    rec.ulParam2 = param2;
    return rec;
}

// The n-th record of a sequence: a timer creation whose first parameter is n.
OperateRec numbered(uint32_t n) { return make_rec(ZEPO_OPERATE_CREATE_TIMER, 100, 7, "seq", n, 0); }

void add(const OperateRec &rec) { ZEPO_AddOperateRec(&rec); }

// Adds records 1 to count, numbered as above.
void add_numbered(uint32_t count) {
    for (uint32_t n = 1; n <= count; ++n) add(numbered(n));
}

std::string dump(uint32_t size = kRoomy) {
    std::vector<char> buffer(size, 'x');
    ZEPO_DumpOperateHistory(buffer.data(), size);
    return std::string(buffer.data());
}

// The text after the header, split into lines (each kept with its newline).
std::vector<std::string> body_lines(const std::string &text) {
    std::vector<std::string> lines;
    if (text.compare(0, kHeader.size(), kHeader) != 0) {
        ADD_FAILURE() << "the dump does not start with the header:\n" << text;
        return lines;
    }
    return qel_test::lines_of(text.substr(kHeader.size()));
}

// The first parameters of the dumped lines, in the order the dump lists them.
std::vector<uint32_t> listed_numbers(const std::string &text) {
    std::vector<uint32_t> numbers;
    for (const std::string &line : body_lines(text)) {
        unsigned int param1 = 0;
        if (std::sscanf(line.c_str(), "%*s %*s 0x%x", &param1) != 1) {
            ADD_FAILURE() << "unexpected line: " << line;
            continue;
        }
        numbers.push_back(param1);
    }
    return numbers;
}

std::vector<uint32_t> counting_down(uint32_t from, uint32_t to) {
    std::vector<uint32_t> numbers;
    for (uint32_t n = from; n >= to; --n) numbers.push_back(n);
    return numbers;
}

bool ring_is_all_zero() {
    const auto *bytes = reinterpret_cast<const unsigned char *>(&s_stOperateHistory);
    for (size_t i = 0; i < sizeof s_stOperateHistory; ++i)
        if (bytes[i] != 0) return false;
    return true;
}

// The one line that a lone record of the given values dumps as.
std::string line_of(const OperateRec &rec) {
    ZEPO_InitOperateHistory();
    add(rec);
    const std::vector<std::string> lines = body_lines(dump());
    if (lines.size() != 1) {
        ADD_FAILURE() << "expected one line, got " << lines.size();
        return "";
    }
    return lines[0];
}

std::string time_column(int32_t time) {
    return line_of(make_rec(ZEPO_OPERATE_CREATE_TIMER, time, 1, "t", 0, 0)).substr(0, 17);
}

class History : public testing::Test {
protected:
    void SetUp() override { ZEPO_InitOperateHistory(); }
};

}  // namespace

// ---- Layout ----------------------------------------------------------------------------

TEST(HistoryLayout, OperateRecIsSixtyFourBytesWithItsFieldsInOrder) {
    EXPECT_EQ(sizeof(OperateRec), 64u);
    EXPECT_EQ(offsetof(OperateRec, ulOperate), 0u);
    EXPECT_EQ(offsetof(OperateRec, ulTime), 4u);
    EXPECT_EQ(offsetof(OperateRec, ulTid), 8u);
    EXPECT_EQ(offsetof(OperateRec, szTName), 12u);
    EXPECT_EQ(sizeof(OperateRec{}.szTName), 36u);
    EXPECT_EQ(offsetof(OperateRec, ulParam1), 48u);
    EXPECT_EQ(offsetof(OperateRec, ulParam2), 56u);
}

TEST(HistoryLayout, RingHolds512RecordsThenTheIndexPaddedToEightBytes) {
    EXPECT_EQ(ZEPO_OPERATE_HISTORY_SLOTS, 512);
    EXPECT_EQ(sizeof(s_stOperateHistory.astRec) / sizeof(OperateRec), 512u);
    EXPECT_EQ(offsetof(OperateHistory, lIndex), 32768u);
    EXPECT_EQ(sizeof(s_stOperateHistory.lIndex), 4u);
    EXPECT_EQ(sizeof(OperateHistory), 32776u);
    EXPECT_EQ(sizeof(s_stOperateHistory), sizeof(OperateHistory));
}

// A fresh process, so that no other test's adds are seen.
TEST(HistoryDeathTest, RingIsAllZeroAtLoad) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(std::exit(ring_is_all_zero() ? 0 : 1), testing::ExitedWithCode(0), "");
}

// ---- Initialisation --------------------------------------------------------------------

TEST_F(History, InitZeroesRecordsAndIndexAndReturnsZero) {
    add_numbered(5);
    s_stOperateHistory.astRec[511].ulOperate = 9;
    ASSERT_FALSE(ring_is_all_zero());
    EXPECT_EQ(ZEPO_InitOperateHistory(), 0);
    EXPECT_TRUE(ring_is_all_zero());
}

TEST_F(History, DumpRightAfterInitHoldsOnlyTheHeader) { EXPECT_EQ(dump(), kHeader); }

// ---- Adding ----------------------------------------------------------------------------

TEST_F(History, AddCopiesTheWholeRecordIntoTheSlotOfTheIndex) {
    const OperateRec rec = make_rec(2, -5, 99, "copied", 0x1122334455667788ull, 42);
    add(numbered(1));
    add(rec);
    EXPECT_EQ(std::memcmp(&s_stOperateHistory.astRec[1], &rec, sizeof rec), 0);
    EXPECT_EQ(s_stOperateHistory.lIndex, 2);
}

TEST_F(History, IndexCountsFromOneTo512AsTheRingFills) {
    EXPECT_EQ(s_stOperateHistory.lIndex, 0);
    add(numbered(1));
    EXPECT_EQ(s_stOperateHistory.lIndex, 1);
    for (uint32_t n = 2; n <= 511; ++n) add(numbered(n));
    EXPECT_EQ(s_stOperateHistory.lIndex, 511);
    add(numbered(512));
    EXPECT_EQ(s_stOperateHistory.lIndex, 512);
    EXPECT_EQ(s_stOperateHistory.astRec[511].ulParam1, 512u);
}

TEST_F(History, The513thAddGoesToSlotZeroAndSetsTheIndexToOne) {
    add_numbered(513);
    EXPECT_EQ(s_stOperateHistory.lIndex, 1);
    EXPECT_EQ(s_stOperateHistory.astRec[0].ulParam1, 513u);
    EXPECT_EQ(s_stOperateHistory.astRec[1].ulParam1, 2u);
    EXPECT_EQ(s_stOperateHistory.astRec[511].ulParam1, 512u);
}

TEST_F(History, AfterAnAddToTheLastSlotTheIndexStaysAt512) {
    add_numbered(1024);
    EXPECT_EQ(s_stOperateHistory.lIndex, 512);
    EXPECT_EQ(s_stOperateHistory.astRec[0].ulParam1, 513u);
    EXPECT_EQ(s_stOperateHistory.astRec[511].ulParam1, 1024u);
    add(numbered(1025));
    EXPECT_EQ(s_stOperateHistory.lIndex, 1);
    EXPECT_EQ(s_stOperateHistory.astRec[0].ulParam1, 1025u);
}

TEST_F(History, AnIndexBeyond512SendsTheRecordToSlotZero) {
    s_stOperateHistory.lIndex = 1000;
    add(numbered(1));
    EXPECT_EQ(s_stOperateHistory.lIndex, 1);
    EXPECT_EQ(s_stOperateHistory.astRec[0].ulParam1, 1u);
}

TEST_F(History, ANegativeIndexSendsTheRecordToSlotZero) {
    for (int32_t index : {-1, INT_MIN}) {
        ZEPO_InitOperateHistory();
        s_stOperateHistory.lIndex = index;
        add(numbered(7));
        EXPECT_EQ(s_stOperateHistory.lIndex, 1) << index;
        EXPECT_EQ(s_stOperateHistory.astRec[0].ulParam1, 7u) << index;
    }
}

TEST_F(History, NullRecordClearsItsSlotAndAdvancesTheIndex) {
    add_numbered(512);
    EXPECT_VOID_REFUSED(ZEPO_AddOperateRec(nullptr));
    EXPECT_EQ(s_stOperateHistory.lIndex, 1);
    const auto *slot = reinterpret_cast<const unsigned char *>(&s_stOperateHistory.astRec[0]);
    for (size_t i = 0; i < sizeof(OperateRec); ++i) EXPECT_EQ(slot[i], 0u) << "byte " << i;
    // The cleared slot is an empty record: the dump skips it.
    EXPECT_EQ(listed_numbers(dump()), counting_down(512, 2));
}

// ---- Walk order ------------------------------------------------------------------------

TEST_F(History, AfterThreeAddsTheDumpListsSlotsTwoOneZero) {
    add_numbered(3);
    EXPECT_EQ(listed_numbers(dump()), (std::vector<uint32_t>{3, 2, 1}));
}

TEST_F(History, After512AddsTheDumpListsSlots511DownToZero) {
    add_numbered(512);
    EXPECT_EQ(listed_numbers(dump()), counting_down(512, 1));
}

TEST_F(History, After513AddsTheDumpStartsWithSlotZeroThen511DownToOne) {
    add_numbered(513);
    std::vector<uint32_t> expected{513};                        // slot 0
    for (uint32_t n = 512; n >= 2; --n) expected.push_back(n);  // slots 511 down to 1
    EXPECT_EQ(listed_numbers(dump()), expected);
}

TEST_F(History, After1000AddsTheDumpListsTheLast512NewestFirst) {
    add_numbered(1000);
    EXPECT_EQ(s_stOperateHistory.lIndex, 488);
    EXPECT_EQ(listed_numbers(dump()), counting_down(1000, 489));
}

TEST_F(History, EmptyRecordsAreSkipped) {
    add(numbered(1));
    add(make_rec(ZEPO_OPERATE_NONE, 100, 7, "skipped", 2, 0));
    add(numbered(3));
    EXPECT_EQ(listed_numbers(dump()), (std::vector<uint32_t>{3, 1}));
}

TEST_F(History, AnIndexNoAddMakesStillListsEveryRecordOnce) {
    add_numbered(512);
    for (int32_t index : {-1, -600, INT_MIN, INT_MAX, 100000}) {
        s_stOperateHistory.lIndex = index;
        std::vector<uint32_t> listed = listed_numbers(dump());
        std::sort(listed.rbegin(), listed.rend());
        EXPECT_EQ(listed, counting_down(512, 1)) << index;
    }
}

// ---- Line format -----------------------------------------------------------------------

TEST_F(History, HeaderIsWrittenByteForByte) {
    add(numbered(1));
    const std::string text = dump();
    EXPECT_EQ(text.substr(0, kHeader.size()), kHeader);
}

TEST_F(History, CreateLineShowsTimeKindParamsTidAndName) {
    EXPECT_EQ(line_of(make_rec(1, 360000 * 25 + 6000 + 123, 4321, "tmr_main", 0x1234, 0xdeadbeef)),
              "  0025:01:01(230)   CreateTm 0x00001234 0xdeadbeef  4321 tmr_main\n");
}

TEST_F(History, DeleteKindPrintsDeleteTm) {
    EXPECT_EQ(line_of(make_rec(2, 0, 1, "worker", 1, 2)),
              "  0000:00:00(000)   DeleteTm 0x00000001 0x00000002     1 worker\n");
}

TEST_F(History, KindSevenPrintsUndefined) {
    EXPECT_EQ(line_of(make_rec(7, 100, 12, "odd", 0, 0)),
              "  0000:00:01(000)  undefined 0x00000000 0x00000000    12 odd\n");
}

TEST_F(History, ParamsPrintOnlyTheirLow32BitsZeroPadded) {
    EXPECT_EQ(line_of(make_rec(1, 0, 1, "p", 0x123456789abcdef0ull, 0xffffffff0000000aull)),
              "  0000:00:00(000)   CreateTm 0x9abcdef0 0x0000000a     1 p\n");
}

TEST_F(History, TidIsRightAlignedInFiveColumnsAndNeverCut) {
    EXPECT_EQ(line_of(make_rec(1, 0, -3, "n", 0, 0)).substr(51), "   -3 n\n");
    EXPECT_EQ(line_of(make_rec(1, 0, 1234567, "n", 0, 0)).substr(51), "1234567 n\n");
}

TEST_F(History, NameIsPrintedAsStoredUpToItsTerminator) {
    const std::string longest(35, 'N');
    EXPECT_EQ(line_of(make_rec(1, 0, 1, longest.c_str(), 0, 0)).substr(57), longest + "\n");
    // An empty name leaves the blank after the tid at the end of the line.
    EXPECT_EQ(line_of(make_rec(1, 0, 1, "", 0, 0)).substr(51), "    1 \n");
}

TEST_F(History, TimeOf25Hours1Minute1Second230MillisecondsPrintsAsSuch) {
    EXPECT_EQ(time_column(360000 * 25 + 6000 + 123), "  0025:01:01(230)");
}

TEST_F(History, TimeFieldsAreZeroPadded) {
    EXPECT_EQ(time_column(360000 * 3 + 6000 * 4 + 100 * 5 + 6), "  0003:04:05(060)");
}

TEST_F(History, HoursAreNotReducedModulo24) {
    EXPECT_EQ(time_column(360000 * 100), "  0100:00:00(000)");
    EXPECT_EQ(time_column(INT_MAX), "  5965:13:56(470)");
}

TEST_F(History, NegativeTimePrintsNegativeFieldsTruncatedTowardZero) {
    EXPECT_EQ(time_column(-1), "  0000:00:00(-10)");
    // -(2 h 1 min 1 s 50 ms): every field keeps the sign.
    EXPECT_EQ(time_column(-(360000 * 2 + 6100 + 5)), "  -002:-1:-1(-50)");
    EXPECT_EQ(line_of(make_rec(1, INT_MIN, 1, "t", 0, 0)).substr(0, 21), "  -5965:-13:-56(-480)");
}

// ---- Buffer and truncation -------------------------------------------------------------

TEST_F(History, DumpZeroesTheWholeBufferBeyondTheText) {
    add_numbered(2);
    std::vector<char> buffer(4096, 0x55);
    ZEPO_DumpOperateHistory(buffer.data(), buffer.size());
    const size_t len = std::strlen(buffer.data());
    EXPECT_EQ(std::string(buffer.data()), dump());
    for (size_t i = len; i < buffer.size(); ++i) ASSERT_EQ(buffer[i], 0) << "byte " << i;
}

TEST_F(History, BufferTooSmallForTheHeaderHoldsTheTruncatedHeaderOnly) {
    add_numbered(3);
    std::vector<char> buffer(20, 0x55);
    ZEPO_DumpOperateHistory(buffer.data(), buffer.size());
    EXPECT_EQ(std::string(buffer.data()), kHeader.substr(0, 19));
    EXPECT_EQ(buffer[19], 0);
}

TEST_F(History, BufferOfOneByteHoldsAnEmptyText) {
    add_numbered(3);
    char buffer[1] = {'x'};
    ZEPO_DumpOperateHistory(buffer, 1);
    EXPECT_EQ(buffer[0], 0);
}

TEST_F(History, BufferFilledExactlyByTheHeaderEndsThere) {
    add_numbered(3);
    EXPECT_EQ(dump(kHeader.size() + 1), kHeader);
}

TEST_F(History, BufferThatFillsMidLineEndsWithThatLineTruncatedAndNothingAfterIt) {
    add_numbered(3);
    const std::vector<std::string> lines = body_lines(dump());
    ASSERT_EQ(lines.size(), 3u);
    const uint32_t size = kHeader.size() + lines[0].size() + 10 + 1;
    std::vector<char> buffer(size, 0x55);
    ZEPO_DumpOperateHistory(buffer.data(), size);
    EXPECT_EQ(std::string(buffer.data()), kHeader + lines[0] + lines[1].substr(0, 10));
    EXPECT_EQ(buffer[size - 1], 0);
}

TEST_F(History, BufferFilledExactlyByALineEndsThere) {
    add_numbered(3);
    const std::vector<std::string> lines = body_lines(dump());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(dump(kHeader.size() + lines[0].size() + lines[1].size() + 1),
              kHeader + lines[0] + lines[1]);
}

TEST_F(History, ZeroSizeLeavesTheBufferUntouched) {
    add_numbered(3);
    char buffer[8];
    std::memset(buffer, 'x', sizeof buffer);
    ZEPO_DumpOperateHistory(buffer, 0);
    for (char c : buffer) EXPECT_EQ(c, 'x');
}

TEST_F(History, SizeAbove0x7FFFFFFFWritesNothing) {
    add_numbered(3);
    char buffer[8];
    std::memset(buffer, 'x', sizeof buffer);
    ZEPO_DumpOperateHistory(buffer, 0x80000000u);
    for (char c : buffer) EXPECT_EQ(c, 'x');
}

TEST_F(History, NullBufferIsLeftAloneWithoutFault) {
    add_numbered(3);
    EXPECT_VOID_REFUSED(ZEPO_DumpOperateHistory(nullptr, 100));
    EXPECT_VOID_REFUSED(ZEPO_DumpOperateHistory(nullptr, 0));
}
