// Factory tuning of the gain-map rendering: the eleven integer parameters
// of a product, their legal ranges and their log dump.
#ifndef HDR_FACTORY_SETTINGS_H
#define HDR_FACTORY_SETTINGS_H

#include <cstdint>
#include <string>

class HdrFactorySettings {
public:
    // Fixed point: MDB_V1, MDB_V2 and GAMMA_MUL are 128 = 1.0, the curve
    // points GAIN_CURVE_P0..P2 are 1024 = 1.0, the gains GAIN_CURVE_G0..G2
    // are 512 = 1.0. The field names are also the settings-file keys. A
    // value-initialised record holds the factory defaults.
    struct Parameter {
        int32_t MDB_V1 = 128;          // 0..1023, display brightness at or below MDB_T1
        int32_t MDB_V2 = 256;          // 0..1023, display brightness at or above MDB_T2
        int32_t MDB_T1 = 10;           // 0..255, low APL threshold
        int32_t MDB_T2 = 100;          // 0..255, high APL threshold
        int32_t GAMMA_MUL = 128;       // 0..1023, multiplier of the metadata's gamma
        int32_t GAIN_CURVE_P0 = 0;     // 0..1024
        int32_t GAIN_CURVE_P1 = 512;   // 0..1024
        int32_t GAIN_CURVE_P2 = 1024;  // 0..1024
        int32_t GAIN_CURVE_G0 = 256;   // 0..1023
        int32_t GAIN_CURVE_G1 = 256;   // 0..1023
        int32_t GAIN_CURVE_G2 = 256;   // 0..1023

        // True when every field lies in its legal range; each illegal field
        // is logged on its own, naming source.
        bool CheckValueIllegal(const std::string& source) const;
        // Logs the eleven fields as "<prefix>.<name> = <value>".
        void Print(const std::string& prefix) const;
    };

    // System-information keys that carry the product's tuning.
    static constexpr int SYSTEM_INFO_KEY_PHOTO_HDR = 1301;  // g PP AA BB CC, decimal
    static constexpr int SYSTEM_INFO_KEY_PEAK_W = 1302;     // panel peak white

    // Reads both keys into param (fields of a failed key keep their values);
    // true only when both reads succeeded.
    static bool GetParameterFromSystemInfo(Parameter& param);
    // The one source of the load order: the system information.
    static bool GetParameter(Parameter& param);

    // Reads "KEY value" lines of a plain-text file at path into param (keys
    // not named keep their values); no range check. False when the file
    // cannot be opened. A value word that is not a number throws
    // std::invalid_argument, one outside int32 std::out_of_range; param is
    // then unchanged.
    static bool GetParameterInFile(const std::string& path, Parameter& param);
};

#endif
