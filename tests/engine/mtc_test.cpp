// MIDI time code: a minute of each format generated and read back gives the labels of
// every second frame, locks, and reaches the transport as message 64.
#include <cmath>
#include <vector>

#include "ostra/kaengine.h"
#include "transport_fixture.h"

namespace ostra::test {
namespace {

void collect(const BYTE* bytes, DWORD count, void* context) {
  auto* out = static_cast<std::vector<BYTE>*>(context);
  out->insert(out->end(), bytes, bytes + count);
}

void note(const KAMTCLABEL* label, void* context) {
  static_cast<std::vector<KAMTCLABEL>*>(context)->push_back(*label);
}

double fps(DWORD type) {
  const double rates[] = {0, 30, 30000.0 / 1001, 25, 24, 30000.0 / 1001, 24000.0 / 1001};
  return rates[type];
}

TEST(MidiTimeCode, AMinuteOfEachFormatDecodesBackToItsLabels) {
  for (DWORD type = 1; type <= 6; ++type) {
    SCOPED_TRACE(type);
    // Start a little before a minute boundary so that drop-frame skips labels on the way.
    const DWORD startFrame = DWORD(std::lround(fps(type) * 3599.5)) & ~1u;
    _smpteval startLabel{type, 0, 0, 0, 0};
    KASMPTE_FrameCountToSMPTE(&startLabel, startFrame);
    const INT64 startTicks = KASMPTE_SMPTEToNanos(&startLabel);

    std::vector<BYTE> bytes;
    IKAMTCGenerator* gen = nullptr;
    ASSERT_EQ(S_OK, KaMTC_CreateGenerator(type, &collect, &bytes, nullptr, &gen));
    ASSERT_EQ(S_OK, gen->Locate(startTicks));
    for (INT64 t = startTicks; t <= startTicks + 600000000; t += 100000) gen->Advance(t);
    gen->Release();

    std::vector<KAMTCLABEL> labels;
    IKAMTCReader* reader = nullptr;
    ASSERT_EQ(S_OK, KaMTC_CreateReader(type, &note, &labels, &reader));
    ASSERT_EQ(S_OK, reader->Feed(bytes.data(), DWORD(bytes.size())));
    EXPECT_EQ(S_OK, reader->IsLocked());
    reader->Release();

    // A full frame at the start, then one label per eight quarter frames.
    const size_t sequences = (bytes.size() - 10) / 16;
    ASSERT_EQ(1 + sequences, labels.size());
    EXPECT_TRUE(labels[0].fullFrame);
    EXPECT_EQ(0, KASMPTE_SMPTECompare(&startLabel, &labels[0].label));
    const size_t minute = size_t(fps(type) * 60 / 2);  // two frames per sequence
    EXPECT_GE(sequences, minute - 1);
    size_t wrong = 0;
    for (size_t k = 1; k < labels.size(); ++k) {
      _smpteval want{type, 0, 0, 0, 0};
      KASMPTE_FrameCountToSMPTE(&want, startFrame + DWORD(2 * k));
      wrong += KASMPTE_SMPTECompare(&want, &labels[k].label) != 0 || labels[k].label.type != type;
      if (k >= 2) wrong += !labels[k].locked;
    }
    EXPECT_EQ(0u, wrong);
    EXPECT_FALSE(labels[1].locked);  // one label is not yet a lock
  }
}

TEST(MidiTimeCode, OutOfOrderQuarterFramesLoseLock) {
  std::vector<BYTE> bytes;
  IKAMTCGenerator* gen = nullptr;
  ASSERT_EQ(S_OK, KaMTC_CreateGenerator(3, &collect, &bytes, nullptr, &gen));
  gen->Locate(0);
  gen->Advance(10000000);
  gen->Release();
  IKAMTCReader* reader = nullptr;
  ASSERT_EQ(S_OK, KaMTC_CreateReader(3, nullptr, nullptr, &reader));
  reader->Feed(bytes.data(), DWORD(bytes.size()));
  EXPECT_EQ(S_OK, reader->IsLocked());
  const BYTE skip[] = {0xF1, 0x35};  // piece 3 where piece 0 is due
  reader->Feed(skip, 2);
  EXPECT_EQ(S_FALSE, reader->IsLocked());
  reader->Release();
}

class MtcTransportTest : public TransportTest {};

TEST_F(MtcTransportTest, ReceivedLabelsReachTheHostAsMessage64) {
  ASSERT_EQ(S_OK, open(0x10000000u));
  IKATimeCodeInput* input = nullptr;
  ASSERT_EQ(S_OK,
            t->QueryInternalInterface(IID_IKATimeCodeInput, reinterpret_cast<void**>(&input)));
  std::vector<BYTE> bytes;
  IKAMTCGenerator* gen = nullptr;
  ASSERT_EQ(S_OK, KaMTC_CreateGenerator(3, &collect, &bytes, nullptr, &gen));
  gen->Locate(36000000000);            // 01:00:00:00
  gen->Advance(36000000000 + 750000);  // eight quarter frames at 25 per second
  gen->Release();
  IKAMTCReader* reader = nullptr;
  ASSERT_EQ(S_OK, KaMTC_CreateReader(3, nullptr, nullptr, &reader));
  reader->SetTimeCodeInput(input);
  reader->Feed(bytes.data(), DWORD(bytes.size()));
  reader->Release();
  input->Release();
  Message last{};
  ASSERT_TRUE(rec.waitFor(KATM_SYNCPOSITION, 2, &last));
  EXPECT_EQ(36000000000 + 800000, last.position[0]);  // 01:00:00:02 after one sequence
  EXPECT_EQ(last.position[0], last.position[1]);
}

}  // namespace
}  // namespace ostra::test
