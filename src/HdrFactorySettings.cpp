#include "HdrFactorySettings.h"

#include "HdrCommon.h"

#include <system_info.h>

#include <array>
#include <fstream>
#include <vector>

namespace {

// One unsigned comparison: a negative value wraps above any maximum.
bool CheckValueIllegalImpl(const std::string& source, const std::string& name, int value, int min, int max)
{
    if (static_cast<unsigned>(value) <= static_cast<unsigned>(max)) {
        return true;
    }
    HDR_LOG("%s ERROR: settings file value(%s, %d) illegal: %d ~ %d\n", source.c_str(), name.c_str(), value, min, max);
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

namespace {

// Splits a line at runs of blanks, tabs and carriage returns.
std::vector<std::string> Words(const std::string& line)
{
    std::vector<std::string> words;
    size_t position = 0;
    while (position < line.size()) {
        const size_t begin = line.find_first_not_of(" \t\r", position);
        if (begin == std::string::npos) {
            break;
        }
        const size_t end = line.find_first_of(" \t\r", begin);
        words.push_back(line.substr(begin, end == std::string::npos ? std::string::npos : end - begin));
        position = end == std::string::npos ? line.size() : end;
    }
    return words;
}

}  // namespace

bool HdrFactorySettings::GetParameterInFile(const std::string& path, Parameter& param)
{
    // The file's keys are the record's field names, in field order.
    static const std::array<std::string, 11> keys = {
        "MDB_V1",        "MDB_V2",        "MDB_T1",        "MDB_T2",        "GAMMA_MUL",     "GAIN_CURVE_P0",
        "GAIN_CURVE_P1", "GAIN_CURVE_P2", "GAIN_CURVE_G0", "GAIN_CURVE_G1", "GAIN_CURVE_G2",
    };
    int32_t* const fields[11] = {&param.MDB_V1,        &param.MDB_V2,        &param.MDB_T1,        &param.MDB_T2,
                                 &param.GAMMA_MUL,     &param.GAIN_CURVE_P0, &param.GAIN_CURVE_P1, &param.GAIN_CURVE_P2,
                                 &param.GAIN_CURVE_G0, &param.GAIN_CURVE_G1, &param.GAIN_CURVE_G2};
    // Values land here first and reach param only at the end of the file,
    // so a value that throws leaves param as it was.
    int32_t values[11];
    for (int i = 0; i < 11; ++i) {
        values[i] = *fields[i];
    }

    HDR_LOG("start : %s", path.c_str());
    std::ifstream file(path);
    if (!file.is_open()) {
        HDR_LOG("GetParameterInFile : %s open fail or It doesn't exist", path.c_str());
        HDR_LOG("end");
        return false;
    }
    HDR_LOG("GetParameterInFile : %s open success", path.c_str());

    std::string line;
    while (std::getline(file, line)) {
        const std::vector<std::string> words = Words(line);
        if (words.size() < 2) {
            continue;
        }
        for (size_t i = 0; i < keys.size(); ++i) {
            if (words[0] == keys[i]) {
                HDR_LOG("LoadSettings set : parameter_values[%d]: %s, %s", static_cast<int>(i), keys[i].c_str(),
                        words[1].c_str());
                values[i] = std::stoi(words[1], nullptr, 10);  // lets its exceptions through
                break;
            }
        }
    }

    for (int i = 0; i < 11; ++i) {
        *fields[i] = values[i];
    }
    param.Print("fileParam");
    HDR_LOG("end");
    return true;
}
