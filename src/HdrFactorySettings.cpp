#include "HdrFactorySettings.h"

#include "HdrCommon.h"

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
