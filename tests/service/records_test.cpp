// Sizes and offsets of the public records, the same on every machine with 64-bit pointers. Those of
// the request, control, data and notification records are asserted in their headers.
#include <gtest/gtest.h>

#include <cstddef>
#include <type_traits>

#include "corpdir_log.h"
#include "ftpcorpdir.h"
#include "osak.h"
#include "travex_ftp.h"
#include "zep.h"

TEST(LogRecord, IsWithoutGaps)
{
    using Record = tag_CORPDIR_LOGINFO;
    EXPECT_EQ(sizeof(Record), 268U);
    EXPECT_EQ(alignof(Record), 4U);
    EXPECT_EQ(offsetof(Record, szLogDir), 0U);
    EXPECT_EQ(offsetof(Record, ulLogLevel), 256U);
    EXPECT_EQ(offsetof(Record, ulMaxFileSize), 260U);
    EXPECT_EQ(offsetof(Record, ulMaxFileCount), 264U);
}

TEST(ErrorRecord, HasItsCodeFirst)
{
    using Record = tagTRAVEX_FTP_S_ERR_INFO;
    EXPECT_EQ(sizeof(Record), 512U);
    EXPECT_EQ(alignof(Record), 4U);
    EXPECT_EQ(offsetof(Record, ulRet), 0U);
    EXPECT_EQ(offsetof(Record, ulStep), 4U);
    EXPECT_EQ(offsetof(Record, ulReply), 8U);
    EXPECT_EQ(offsetof(Record, ulDetail), 12U);
    EXPECT_EQ(offsetof(Record, acReason), 16U);
}

TEST(ObservationRecord, IsWithoutGaps)
{
    using Record = tagTRAVEX_FTP_S_OBSERVATION;
    EXPECT_EQ(sizeof(Record), 72U);
    EXPECT_EQ(alignof(Record), 8U);
    EXPECT_EQ(offsetof(Record, ulKind), 0U);
    EXPECT_EQ(offsetof(Record, ulTaskID), 4U);
    EXPECT_EQ(offsetof(Record, pcServer), 8U);
    EXPECT_EQ(offsetof(Record, pcServerFile), 16U);
    EXPECT_EQ(offsetof(Record, ullBytes), 24U);
    EXPECT_EQ(offsetof(Record, ullTotal), 32U);
    EXPECT_EQ(offsetof(Record, ulRet), 40U);
    EXPECT_EQ(offsetof(Record, ulStep), 44U);
    EXPECT_EQ(offsetof(Record, ulReply), 48U);
    EXPECT_EQ(offsetof(Record, ulDetail), 52U);
    EXPECT_EQ(offsetof(Record, pcReason), 56U);
    EXPECT_EQ(offsetof(Record, pstTimings), 64U);
}

TEST(TimingsRecord, IsWithoutGaps)
{
    using Record = tagTRAVEX_FTP_S_TIMINGS;
    EXPECT_EQ(sizeof(Record), 904U);
    EXPECT_EQ(offsetof(Record, ullConnected), 0U);
    EXPECT_EQ(offsetof(Record, ullEnded), 32U);
    EXPECT_EQ(offsetof(Record, llCertificateUntil), 40U);
    EXPECT_EQ(offsetof(Record, acTlsVersion), 48U);
    EXPECT_EQ(offsetof(Record, acTlsSuite), 64U);
    EXPECT_EQ(offsetof(Record, acSubject), 128U);
    EXPECT_EQ(offsetof(Record, acNames), 384U);
    EXPECT_EQ(offsetof(Record, ulReused), 896U);
    EXPECT_EQ(offsetof(Record, ulDataResumed), 900U);
}

TEST(MutexRecord, Is72BytesAlignedForPointers)
{
    EXPECT_EQ(sizeof(OSAK_MUTEX), 72U);
    EXPECT_EQ(alignof(OSAK_MUTEX), 8U);
}

TEST(Records, HaveTheAlignmentOfTheirWidestField)
{
    EXPECT_EQ(alignof(tag_CORPDIR_DOWNLOADINFO), 8U);
    EXPECT_EQ(alignof(tagTRAVEX_FTP_S_CTRL_PARAM), 8U);
    EXPECT_EQ(alignof(tagTRAVEX_FTP_S_DATA_PARAM), 4U);
    EXPECT_EQ(alignof(tagTRAVEX_FTP_S_NOTIFY_DATA), 8U);
}

// Their layout is the same with every compiler, and clients may copy them as bytes.
template <typename Record>
constexpr bool kPlain = std::is_standard_layout_v<Record>&& std::is_trivially_copyable_v<Record>;

TEST(Records, ArePlainData)
{
    EXPECT_TRUE(kPlain<tag_CORPDIR_DOWNLOADINFO>);
    EXPECT_TRUE(kPlain<tag_CORPDIR_LOGINFO>);
    EXPECT_TRUE(kPlain<tagTRAVEX_FTP_S_CTRL_PARAM>);
    EXPECT_TRUE(kPlain<tagTRAVEX_FTP_S_DATA_PARAM>);
    EXPECT_TRUE(kPlain<tagTRAVEX_FTP_S_NOTIFY_DATA>);
    EXPECT_TRUE(kPlain<tagTRAVEX_FTP_S_ERR_INFO>);
    EXPECT_TRUE(kPlain<tagTRAVEX_FTP_S_OBSERVATION>);
    EXPECT_TRUE(kPlain<tagTRAVEX_FTP_S_TIMINGS>);
    EXPECT_TRUE(kPlain<OSAK_MUTEX>);
}

// Results and numbers of the interfaces are "unsigned int", and codes are compared with them.
TEST(Codes, AreNumbersOf32Bits)
{
    EXPECT_EQ(sizeof(unsigned int), 4U);
    EXPECT_EQ(sizeof(tagTRAVEX_FTP_RESULT), 4U);
    EXPECT_EQ(sizeof(tagTRAVEX_FTP_NOTIFY_TYPE), 4U);
    EXPECT_EQ(sizeof(tagTRAVEX_FTP_OBSERVED), 4U);
    EXPECT_EQ(sizeof(tagOSAK_RESULT), 4U);
    EXPECT_EQ(sizeof(tagZEP_RESULT), 4U);
    EXPECT_EQ(sizeof(tagCORPDIR_LOG_LEVEL), 4U);
}
