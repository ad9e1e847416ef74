#include <gtest/gtest.h>

#include "user_space_frameworks/GuidTranslator.h"
#include "user_space_frameworks/KsIdentifierTranslator.h"
#include "user_space_frameworks/MediaTypeTranslator.h"

namespace user_space_frameworks {
namespace {

const GUID kCaptureTiming = {0x2BF10C23, 0xBF48, 0x4C54, {0xB1, 0xF9, 0x9B, 0xB1, 0x9E, 0x70, 0xDB, 0x05}};
const GUID kDepthXu = {0xC9606CCB, 0x594C, 0x4D25, {0xAF, 0x47, 0xCC, 0xC4, 0x96, 0x43, 0x59, 0x95}};
const GUID kUnnamed = {0x0123ABCD, 0x4567, 0x89EF, {0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10}};

GUID FourCcSubtype(const char (&code)[5]) {
  GUID subtype = MFVideoFormat_Base;
  subtype.Data1 = static_cast<DWORD>(static_cast<unsigned char>(code[0])) |
                  static_cast<DWORD>(static_cast<unsigned char>(code[1])) << 8 |
                  static_cast<DWORD>(static_cast<unsigned char>(code[2])) << 16 |
                  static_cast<DWORD>(static_cast<unsigned char>(code[3])) << 24;
  return subtype;
}

TEST(GuidTranslatorTest, NamesPlatformSupplementAndCameraGuids) {
  EXPECT_EQ("GUID_NULL", GuidTranslator::Name(GUID_NULL));
  EXPECT_EQ("MF_MT_SUBTYPE", GuidTranslator::Name(MF_MT_SUBTYPE));
  // A depth camera's subtype shares its value with an audio format; the video name wins.
  EXPECT_EQ("MFVideoFormat_D16", GuidTranslator::Name(MFVideoFormat_D16));
  EXPECT_EQ("MF_DEVICESTREAM_STREAM_CATEGORY", GuidTranslator::Name(MF_DEVICESTREAM_STREAM_CATEGORY));
  EXPECT_EQ("PINNAME_VIDEO_CAPTURE", GuidTranslator::Name(PINNAME_VIDEO_CAPTURE));
  EXPECT_EQ("VELDARA_SAMPLE_WQ400_CAPTURE_TIMING", GuidTranslator::Name(kCaptureTiming));
  EXPECT_EQ("KSPROPERTY_XU_WQ400_DEPTH", GuidTranslator::Name(kDepthXu));
  EXPECT_GT(GuidTranslator::Instance()->Size(), 450u);
}

TEST(GuidTranslatorTest, UnnamedGuidReadsAsThePlatformTextForm) {
  // Lower case, no braces: the form the registry keys use too.
  EXPECT_EQ("0123abcd-4567-89ef-fedc-ba9876543210", GuidTranslator::Name(kUnnamed));
  EXPECT_EQ(L"0123abcd-4567-89ef-fedc-ba9876543210", GuidTranslator::ToWideString(kUnnamed));
  EXPECT_EQ(nullptr, GuidTranslator::Instance()->Find(kUnnamed));
}

TEST(GuidTranslatorTest, ReleasedTablesAreRebuiltForLateCallers) {
  ASSERT_EQ(S_OK, GuidTranslator::Create());
  const auto held = GuidTranslator::Instance();
  GuidTranslator::Release();
  // A caller holding the table keeps it; a later caller gets a new one.
  EXPECT_EQ("MF_MT_SUBTYPE", held->Translate(MF_MT_SUBTYPE));
  EXPECT_EQ("MF_MT_SUBTYPE", GuidTranslator::Name(MF_MT_SUBTYPE));
  EXPECT_NE(held, GuidTranslator::Instance());
}

TEST(MediaTypeTranslatorTest, NamesFourCcSubtypesWithTheirBlanks) {
  EXPECT_EQ("Z16 ", MediaTypeTranslator::SubtypeName(FourCcSubtype("Z16 ")));
  EXPECT_EQ("Y12I", MediaTypeTranslator::SubtypeName(FourCcSubtype("Y12I")));
  EXPECT_EQ("YUY2", MediaTypeTranslator::SubtypeName(MFVideoFormat_YUY2));
  EXPECT_EQ("v210", MediaTypeTranslator::SubtypeName(MFVideoFormat_v210));
  // Format-number subtypes and other GUIDs fall back to the GUID names.
  EXPECT_EQ("MFVideoFormat_L8", MediaTypeTranslator::SubtypeName(MFVideoFormat_L8));
  EXPECT_STREQ("Unknown", MediaTypeTranslator::Instance()->FourCcName(FourCcSubtype("QQQQ").Data1));
}

struct KsCase {
  const char *label;
  GUID set;
  ULONG id;
  ULONG flags;
  KsIdentifierTranslator::Kind kind;
  const char *expected;
};

class KsIdentifierTranslatorTest : public ::testing::TestWithParam<KsCase> {};

TEST_P(KsIdentifierTranslatorTest, RendersSetIdAndFlags) {
  const KsCase &c = GetParam();
  KSIDENTIFIER identifier = {};
  identifier.Set = c.set;
  identifier.Id = c.id;
  identifier.Flags = c.flags;
  EXPECT_EQ(c.expected, KsIdentifierTranslator::Name(identifier, c.kind));
}

const KsCase kKsCases[] = {
    {"procamp", PROPSETID_VIDCAP_VIDEOPROCAMP, 9, KSPROPERTY_TYPE_GET, KsIdentifierTranslator::Property,
     "Set: PROPSETID_VIDCAP_VIDEOPROCAMP, Id: KSPROPERTY_VIDEOPROCAMP_GAIN, Flags: KSPROPERTY_TYPE_GET"},
    {"lastExtended", KSPROPERTYSETID_ExtendedCameraControl, 35, KSPROPERTY_TYPE_GET, KsIdentifierTranslator::Property,
     "Set: KSPROPERTYSETID_ExtendedCameraControl, Id: KSPROPERTY_CAMERACONTROL_EXTENDED_FACEAUTH_MODE, Flags: "
     "KSPROPERTY_TYPE_GET"},
    {"nodeSupport", kDepthXu, 3, KSPROPERTY_TYPE_TOPOLOGY | KSPROPERTY_TYPE_SETSUPPORT, KsIdentifierTranslator::Property,
     "Set: KSPROPERTY_XU_WQ400_DEPTH, Id: KSPROPERTY_XU_WQ400_DEPTH::EXPOSURE, Flags: KSPROPERTY_TYPE_SETSUPPORT | "
     "KSPROPERTY_TYPE_TOPOLOGY"},
    {"highBits", PROPSETID_VIDCAP_CAMERACONTROL, 19, KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_COPYPAYLOAD,
     KsIdentifierTranslator::Property,
     "Set: PROPSETID_VIDCAP_CAMERACONTROL, Id: KSPROPERTY_CAMERACONTROL_AUTO_EXPOSURE_PRIORITY, Flags: "
     "KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_COPYPAYLOAD"},
    {"event", KSEVENTSETID_VIDCAPTOSTI, 1, KSEVENT_TYPE_ENABLE | KSEVENT_TYPE_ONESHOT, KsIdentifierTranslator::Event,
     "Set: KSEVENTSETID_VIDCAPTOSTI, Id: KSEVENT_VIDCAP_AUTO_UPDATE, Flags: KSEVENT_TYPE_ENABLE | "
     "KSEVENT_TYPE_ONESHOT"},
    // The same bits mean other things for another kind.
    {"methodModify", KSPROPSETID_Topology, 3, KSMETHOD_TYPE_MODIFY, KsIdentifierTranslator::Method,
     "Set: KSPROPSETID_Topology, Id: KSPROPERTY_TOPOLOGY_NAME, Flags: KSMETHOD_TYPE_MODIFY"},
    {"methodNone", KSPROPSETID_Topology, 0, 0, KsIdentifierTranslator::Method,
     "Set: KSPROPSETID_Topology, Id: KSPROPERTY_TOPOLOGY_CATEGORIES, Flags: KSMETHOD_TYPE_NONE"},
    {"unknownId", PROPSETID_VIDCAP_VIDEOPROCAMP, 0x2A, KSPROPERTY_TYPE_GET | 0x20, KsIdentifierTranslator::Property,
     "Set: PROPSETID_VIDCAP_VIDEOPROCAMP, Id: Unknown 0x2A, Flags: KSPROPERTY_TYPE_GET | 0x20"},
    {"unknownSet", kUnnamed, 7, 0, KsIdentifierTranslator::Property,
     "Set: Unknown 0x0123ABCD456789EFFEDCBA9876543210, Id: Unknown 0x7, Flags: "},
};

INSTANTIATE_TEST_SUITE_P(Requests, KsIdentifierTranslatorTest, ::testing::ValuesIn(kKsCases),
                         [](const ::testing::TestParamInfo<KsCase> &info) { return std::string(info.param.label); });

}  // namespace
}  // namespace user_space_frameworks
