#include "HdrFactorySettings.h"

#include "HdrCommon.h"

#include <system_info.h>

namespace {

// One unsigned comparison: a negative value wraps above any maximum.
bool CheckValueIllegalImpl(const std::string& source, const std::string& name, int value, int min,
                           int max)
{
    if (static_cast<unsigned>(value) <= static_cast<unsigned>(max)) {
        return true;
    }
    HDR_LOG("%s ERROR: settings file value(%s, %d) illegal: %d ~ %d\n", source.c_str(), name.c_str(),
            value, min, max);
    return false;
}

}  // namespace

bool HdrFactorySettings::Parameter::CheckValueIllegal(const std::string& source) const
{
    // Every field is checked, so that each illegal one is reported.
    bool legal = true;
    legal &= CheckValueIllegalImpl(source, "MDB_V1", MDB_V1, 0, 1023);
    legal &= CheckValueIllegalImpl(source, "MDB_V2", MDB_V2, 0, 1023);
    legal &= CheckValueIllegalImpl(source, "MDB_T1", MDB_T1, 0, 255);
    legal &= CheckValueIllegalImpl(source, "MDB_T2", MDB_T2, 0, 255);
    legal &= CheckValueIllegalImpl(source, "GAMMA_MUL", GAMMA_MUL, 0, 1023);
    legal &= CheckValueIllegalImpl(source, "GAIN_CURVE_P0", GAIN_CURVE_P0, 0, 1024);
    legal &= CheckValueIllegalImpl(source, "GAIN_CURVE_P1", GAIN_CURVE_P1, 0, 1024);
    legal &= CheckValueIllegalImpl(source, "GAIN_CURVE_P2", GAIN_CURVE_P2, 0, 1024);
    legal &= CheckValueIllegalImpl(source, "GAIN_CURVE_G0", GAIN_CURVE_G0, 0, 1023);
    legal &= CheckValueIllegalImpl(source, "GAIN_CURVE_G1", GAIN_CURVE_G1, 0, 1023);
    legal &= CheckValueIllegalImpl(source, "GAIN_CURVE_G2", GAIN_CURVE_G2, 0, 1023);
    return legal;
}

void HdrFactorySettings::Parameter::Print(const std::string& prefix) const
{
    const char* p = prefix.c_str();
    HDR_LOG("%s.MDB_V1 = %d", p, MDB_V1);
    HDR_LOG("%s.MDB_V2 = %d", p, MDB_V2);
    HDR_LOG("%s.MDB_T1 = %d", p, MDB_T1);
    HDR_LOG("%s.MDB_T2 = %d", p, MDB_T2);
    HDR_LOG("%s.GAMMA_MUL = %d", p, GAMMA_MUL);
    HDR_LOG("%s.GAIN_CURVE_P0 = %d", p, GAIN_CURVE_P0);
    HDR_LOG("%s.GAIN_CURVE_P1 = %d", p, GAIN_CURVE_P1);
    HDR_LOG("%s.GAIN_CURVE_P2 = %d", p, GAIN_CURVE_P2);
    HDR_LOG("%s.GAIN_CURVE_G0 = %d", p, GAIN_CURVE_G0);
    HDR_LOG("%s.GAIN_CURVE_G1 = %d", p, GAIN_CURVE_G1);
    HDR_LOG("%s.GAIN_CURVE_G2 = %d", p, GAIN_CURVE_G2);
}

bool HdrFactorySettings::GetParameterFromSystemInfo(Parameter& param)
{
    int photoHdr = -1;
    int peakWhite = -1;

    // v reads as the decimal g PP AA BB CC: each two-digit group a percentage
    // in the 1024-based fixed point, g a gamma multiplier of (g + 4) / 4 in
    // the 128-based one. Signed 32-bit arithmetic, truncating.
    const int photoResult = system_info_get_value_int(SYSTEM_INFO_KEY_PHOTO_HDR, &photoHdr);
    if (photoResult != 0) {
        HDR_LOG("system_info_get_value_int(SYSTEM_INFO_KEY_PHOTO_HDR) failed : error[%d]", photoResult);
    } else {
        param.GAMMA_MUL = (photoHdr / 100000000 + 4) * 32;
        param.GAIN_CURVE_P1 = ((photoHdr / 1000000) % 100) * 1024 / 100;
        param.GAIN_CURVE_G0 = ((photoHdr / 10000) % 100) * 1024 / 100;
        param.GAIN_CURVE_G1 = ((photoHdr / 100) % 100) * 1024 / 100;
        param.GAIN_CURVE_G2 = (photoHdr % 100) * 1024 / 100;
        HDR_LOG("system_info_get_value_int(SYSTEM_INFO_KEY_PHOTO_HDR) success : %d", photoHdr);
        HDR_LOG("SYSTEM_INFO_KEY_PHOTO_HDR : GAMMA_MUL = %d", param.GAMMA_MUL);
        HDR_LOG("SYSTEM_INFO_KEY_PHOTO_HDR : GAIN_CURVE_P1 = %d", param.GAIN_CURVE_P1);
        HDR_LOG("SYSTEM_INFO_KEY_PHOTO_HDR : GAIN_CURVE_G0 = %d", param.GAIN_CURVE_G0);
        HDR_LOG("SYSTEM_INFO_KEY_PHOTO_HDR : GAIN_CURVE_G1 = %d", param.GAIN_CURVE_G1);
        HDR_LOG("SYSTEM_INFO_KEY_PHOTO_HDR : GAIN_CURVE_G2 = %d", param.GAIN_CURVE_G2);
    }

    const int peakResult = system_info_get_value_int(SYSTEM_INFO_KEY_PEAK_W, &peakWhite);
    if (peakResult != 0) {
        HDR_LOG("system_info_get_value_int(SYSTEM_INFO_KEY_PEAK_W) failed : error[%d]", peakResult);
        return false;
    }
    // 136 up to 30, 256 from 100, linear between (the step from 254 at 99 to
    // 256 at 100 is part of the mapping).
    if (peakWhite <= 30) {
        param.MDB_V2 = 136;
    } else if (peakWhite <= 99) {
        param.MDB_V2 = (peakWhite - 30) * 120 / 70 + 136;
    } else {
        param.MDB_V2 = 256;
    }
    HDR_LOG("system_info_get_value_int(SYSTEM_INFO_KEY_PEAK_W) success : %d", peakWhite);
    HDR_LOG("SYSTEM_INFO_KEY_PEAK_W : MDB_V2 = %d", param.MDB_V2);

    if (photoResult != 0) {
        return false;
    }
    param.Print("SystemInfoParam");
    return true;
}

bool HdrFactorySettings::GetParameter(Parameter& param)
{
    return GetParameterFromSystemInfo(param);
}
