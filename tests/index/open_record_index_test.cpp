// The lookup of open index records by VCN against the plain walk of the
// chain of open records, through a long run of random insertions (splits at
// several levels, shadow copies, retired records) and removals in a real
// directory, and through enumerations that keep passed records and bring
// them back.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "index/index_test_util.h"

namespace ntfs {
namespace {

std::u16string NameNumber(int number) {
    char text[96];
    std::snprintf(text, sizeof(text), "Name %05d of the open record lookup test%.*s", number, number % 40,
                  "........................................");
    return std::u16string(text, text + std::char_traits<char>::length(text));
}

// Every VCN the directory's records may have, and some behind them.
::testing::AssertionResult LookupsAgree(CDirectory* directory) {
    const int64_t vcns = directory->BitToVcn(directory->CBitmapData::GetItemCount() + 4);
    for (int64_t vcn = -1; vcn <= vcns; ++vcn) {
        CIndexRecord* indexed = directory->FindOpenRecord(vcn);
        CIndexRecord* scanned = directory->ScanOpenRecords(vcn);
        if (indexed != scanned) return ::testing::AssertionFailure() << "VCN " << vcn << " differs";
    }
    return ::testing::AssertionSuccess();
}

TEST(PlainForm, OpenRecordLookupAnswersAsTheChainWalk) {
    test::ScratchDirectory scratch("c4k");
    ASSERT_TRUE(scratch.ready);
    CDirectory* directory = scratch.directory;
    std::mt19937 random(20);
    std::set<int> present;
    for (int step = 0; step < 1500; ++step) {
        directory->ModifiedRecords.Clear();
        directory->AbateRecords.Clear();
        directory->NewRecords.Clear();
        const int number = static_cast<int>(random() % 900);
        if (random() % 4 != 0 || present.empty()) {
            std::unique_ptr<CIndexEntry> entry(test::MakeEntry(NameNumber(number), 1000 + number));
            const unsigned int code = directory->InsertEntry(directory->GetIndexRoot(), entry.get());
            ASSERT_TRUE(code == ERROR_SUCCESS || (code == ERROR_FILE_CORRUPT && present.count(number) != 0)) << code;
            present.insert(number);
        } else {
            auto it = present.begin();
            std::advance(it, static_cast<long>(random() % present.size()));
            CIndexEntry* entry = nullptr;
            ASSERT_EQ(test::FindName(directory, NameNumber(*it), &entry), ERROR_SUCCESS);
            ASSERT_EQ(directory->Remove(entry), ERROR_SUCCESS);
            present.erase(it);
        }
        if (step % 25 == 0) {
            ASSERT_TRUE(LookupsAgree(directory)) << step;
        }
    }
    ASSERT_TRUE(LookupsAgree(directory));
    test::TreeShape shape;
    ASSERT_EQ(test::CheckIndex(directory, &shape), "");
    EXPECT_GE(shape.Depth, 3);
}

}  // namespace
}  // namespace ntfs
