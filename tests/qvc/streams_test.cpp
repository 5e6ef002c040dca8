#include "qvc/ByteArray.h"
#include "qvc/FastString.h"
#include "qvc/Uuid.h"
#include "qvc/streams/MemoryStream.h"
#include "qvc/streams/NullStream.h"
#include "tests/qvc/CapturedLog.h"

#include <gtest/gtest.h>

#include <array>

namespace qvc {
namespace {

/// Failures are logged, which is not what these tests look at.
struct StreamTest : testing::Test {
  debug::CapturedLog log;
};

ByteArray bytes(const char* hex) {
  return FastString::hexToArray(hex);
}

uint64_t position(Stream& stream) {
  uint64_t pos = 0;
  EXPECT_EQ(stream.getPos(pos), qvc_Success);
  return pos;
}

TEST_F(StreamTest, readsIntegersInEitherOrder) {
  MemoryStream stream(bytes("010203fffffe0102030405060708"));
  uint32_t unsigned24 = 0;
  int32_t signed24 = 0;
  uint64_t wide = 0;
  EXPECT_EQ(stream.readUINT24(&unsigned24), qvc_Success);
  EXPECT_EQ(stream.readINT24(&signed24), qvc_Success);
  EXPECT_EQ(stream.readUINT64(&wide), qvc_Success);
  EXPECT_EQ(std::tuple(unsigned24, signed24, wide), std::tuple(0x010203u, -2, 0x0102030405060708u));

  stream.setByteOrder(ByteOrder::LittleEndian);
  EXPECT_EQ(stream.seek(0), qvc_Success);
  int64_t fromShort = 0;
  uint8_t narrow = 0;
  EXPECT_EQ(stream.readUINT24(&unsigned24), qvc_Success);
  EXPECT_EQ(stream.readINT16(&fromShort), qvc_Success);
  EXPECT_EQ(stream.skip(1), qvc_Success);
  EXPECT_EQ(stream.readUINT16(&narrow), qvc_Success);
  EXPECT_EQ(std::tuple(unsigned24, fromShort, narrow), std::tuple(0x030201u, -1, 1))
      << "A short is extended by its sign, and of 0x0201 the low byte is kept";
}

TEST_F(StreamTest, aFailedReaderKeepsWhatItReadAndLogsTwice) {
  MemoryStream stream(bytes("0000000100000002"));
  std::array<uint32_t, 3> values = {9, 9, 9};
  EXPECT_EQ(stream.readUINT32(values.data(), 3), qvc_IOError);
  EXPECT_EQ(values, (std::array<uint32_t, 3>{1, 2, 9}));
  const auto& entries = log.entries();
  ASSERT_GE(entries.size(), 2u);
  EXPECT_EQ(entries.back().function, "readUINT32");
  EXPECT_EQ(entries[entries.size() - 2].function, "readWidth");
  EXPECT_EQ(entries.back().code, qvc_IOError);
  stream.close();
  EXPECT_EQ(stream.readUINT8(values.data(), 0), qvc_Success) << "nothing to read needs no open stream";
  EXPECT_EQ(stream.readUINT8(values.data(), 1), qvc_PermissionDenied);
}

TEST_F(StreamTest, shortReadsSucceedOnlyWhenTheCallerCanTell) {
  char buffer[10];
  MemoryStream stream(bytes("01020304"));
  const auto read10 = [&] {
    uint64_t done = 99;
    const _qvc_Result result = stream.read(buffer, 10, &done);
    return std::pair(result, done);
  };
  EXPECT_EQ(read10(), std::pair(_qvc_Result(qvc_Success), uint64_t{4}));
  EXPECT_EQ(read10(), std::pair(_qvc_Result(qvc_IOError), uint64_t{0})) << "at the end";
  EXPECT_EQ(stream.read(buffer, 0), qvc_Success);
  stream.seek(0);
  EXPECT_EQ(stream.read(buffer, 10), qvc_IOError);
  EXPECT_EQ(position(stream), 4u) << "after a partial copy";

  ByteArray out("old");
  stream.seek(-2, SeekMode::FromEnd);
  EXPECT_EQ(stream.read(out, UINT64_MAX), qvc_Success) << "memory is taken only for what is there";
  EXPECT_EQ(out, bytes("0304"));
  EXPECT_EQ(stream.read(out, 1), qvc_IOError);
  EXPECT_TRUE(out.isEmpty());
  EXPECT_EQ(stream.readAll(out), qvc_Success);
  stream.seek(1);
  EXPECT_EQ(stream.readAll(out), qvc_Success);
  EXPECT_EQ(out, bytes("020304"));
}

TEST_F(StreamTest, anOwnedBlockGrowsAndIsCut) {
  MemoryStream stream;
  for (const auto& [position, written] : {std::pair(0, "010203"), std::pair(1, "aabbcc")}) {
    EXPECT_EQ(stream.seek(position), qvc_Success);
    EXPECT_EQ(stream.write(bytes(written)), qvc_Success);
  }
  EXPECT_EQ(position(stream), 4u);
  EXPECT_EQ(ByteArray(stream.data(), 4), bytes("01aabbcc"));
  stream.seek(2);
  EXPECT_EQ(stream.truncate(), qvc_Success);
  uint64_t size = 0;
  EXPECT_EQ(stream.getSize(size), qvc_Success);
  EXPECT_EQ(size, 2u);
  EXPECT_EQ(stream.resize(1), qvc_Success);
  EXPECT_EQ(position(stream), 1u);
  EXPECT_EQ(stream.resize(UINT64_MAX), qvc_OutOfMemory);
  EXPECT_EQ(stream.setAllocSize(100), qvc_Success);
  EXPECT_EQ(stream.data()[0], 1);
}

TEST_F(StreamTest, wrappedMemoryKeepsItsSize) {
  uint8_t memory[3] = {};
  MemoryStream stream(memory, sizeof memory);
  for (const auto& [source, written] : {std::pair("01020304", 3u), std::pair("05", 0u)}) {
    uint64_t done = 99;
    EXPECT_EQ(stream.write(bytes(source), &done), qvc_Success);
    EXPECT_EQ(done, written) << source;
    EXPECT_EQ(memory[2], 3);
  }
  EXPECT_EQ(stream.write(bytes("05")), qvc_PermissionDenied);
  EXPECT_EQ(stream.truncate(), qvc_PermissionDenied);
  EXPECT_EQ(stream.resize(9), qvc_PermissionDenied);
  stream.wrapMemory(static_cast<const void*>("const"), 5);
  EXPECT_EQ(stream.write(bytes("05")), qvc_PermissionDenied);
}

TEST_F(StreamTest, seeksStopAtTheEnds) {
  NullStream null(10);
  MemoryStream memory(ByteArray(size_t{10}));
  const std::tuple<int64_t, SeekMode, _qvc_Result, uint64_t> seeks[] = {
      {4, SeekMode::FromStart, qvc_Success, 4},
      {-5, SeekMode::FromCurrent, qvc_OutOfRange, 0},
      {1, SeekMode::FromEnd, qvc_OutOfRange, 10},
      {-3, SeekMode::FromEnd, qvc_Success, 7},
      {INT64_MAX, SeekMode::FromCurrent, qvc_OutOfRange, 10},
      {INT64_MIN, SeekMode::FromStart, qvc_OutOfRange, 0}};
  for (Stream* stream : {static_cast<Stream*>(&null), static_cast<Stream*>(&memory)})
    for (const auto& [offset, mode, result, reached] : seeks) {
      EXPECT_EQ(stream->seek(offset, mode), result) << offset;
      EXPECT_EQ(position(*stream), reached) << offset;
    }
  NullStream empty;
  EXPECT_EQ(empty.seek(-5), qvc_Success);
  EXPECT_EQ(position(empty), 0u);
}

TEST_F(StreamTest, uuidsReadEveryForm) {
  const Uuid dashed("00112233-4455-6677-8899-aabbccddeeff");
  for (const char* same : {"0x00112233445566778899AABBCCDDEEFF", "00112233445566778899AABBCCDDEEFF0102"})
    EXPECT_EQ(Uuid(same), dashed) << same; // what is too much is dropped
  EXPECT_EQ(Uuid(dashed.toByteArray()), dashed);
  EXPECT_EQ(std::tuple(dashed.toString(), dashed.toHEX(), Uuid("0011-22").toHEX()),
            std::tuple("00112233-4455-6677-8899-aabbccddeeff", "00112233445566778899AABBCCDDEEFF",
                       "00112200000000000000000000000000"));
  EXPECT_TRUE(Uuid("").isNil() && Uuid().isNil());
  EXPECT_ANY_THROW(Uuid("not hexadecimal"));
  EXPECT_TRUE(Uuid("01") < Uuid("80") && Uuid("80") > Uuid("01"));
}

TEST_F(StreamTest, uuidsTurnAroundAndTravel) {
  const Uuid uuid("00112233-4455-6677-8899-aabbccddeeff");
  EXPECT_EQ(Uuid::playreadyToCenc(uuid).toString(), "33221100-5544-7766-8899-aabbccddeeff");
  EXPECT_EQ(Uuid(uuid).playreadyToCenc().playreadyToCenc(), uuid);
  MemoryStream stream;
  EXPECT_EQ(uuid.writeToStream(stream), qvc_Success);
  stream.seek(0);
  Uuid read;
  EXPECT_EQ(read.readFromStream(stream), qvc_Success);
  EXPECT_EQ(read, uuid);
  EXPECT_EQ(read.readFromStream(stream), qvc_IOError);
  EXPECT_EQ(read, uuid);
}

} // namespace
} // namespace qvc
