// GL side of the specialised gain-map programs: compile, link, carry the
// registered program's uniforms over.
#include "HdrGainMapVariantPrograms.h"

#include "HdrCommon.h"

#include <string>
#include <vector>

namespace {

GLuint CompileStage(GLenum kind, const char* source)
{
    const GLuint shader = glCreateShader(kind);
    if (shader == 0) {
        return 0;
    }
    glShaderSource(shader, 1, &source, nullptr);
    glCompileShader(shader);
    GLint compiled = GL_FALSE;
    glGetShaderiv(shader, GL_COMPILE_STATUS, &compiled);
    if (compiled != GL_TRUE) {
        char log[512] = {};
        glGetShaderInfoLog(shader, sizeof log, nullptr, log);
        HDR_LOG("%d ERROR: gain-map variant shader did not compile: %s\n", __LINE__, log);
        glDeleteShader(shader);
        return 0;
    }
    return shader;
}

// The float array uniform `name`, elements 0 .. count - 1 each by its own
// name, or (array false) the float vector `name` whole, into values (room
// for count floats). False when the program has no such active uniform.
bool ReadFloats(GLuint program, const char* name, int count, bool array, float* values)
{
    for (int i = 0; i < (array ? count : 1); ++i) {
        const std::string element = array ? std::string(name) + "[" + std::to_string(i) + "]" : std::string(name);
        const GLint location = glGetUniformLocation(program, element.c_str());
        if (location < 0) {
            return false;
        }
        glGetUniformfv(program, location, &values[i]);
    }
    return true;
}

}  // namespace

GLuint GainMapVariantPrograms::Build(const GainMapVariant& variant, const char* vertexSource, GLint positionLocation,
                                     GLint texcoordLocation)
{
    const std::string fragmentSource = GainMapVariantFragmentSource(variant);
    const GLuint vertex = CompileStage(GL_VERTEX_SHADER, vertexSource);
    const GLuint fragment = vertex != 0 ? CompileStage(GL_FRAGMENT_SHADER, fragmentSource.c_str()) : 0;
    GLuint program = (vertex != 0 && fragment != 0) ? glCreateProgram() : 0;
    if (program != 0) {
        glAttachShader(program, vertex);
        glAttachShader(program, fragment);
        // The engine's vertex array was set up for the registered program's
        // attribute locations; every variant shares it.
        if (positionLocation >= 0) {
            glBindAttribLocation(program, static_cast<GLuint>(positionLocation), "aPosition");
        }
        if (texcoordLocation >= 0) {
            glBindAttribLocation(program, static_cast<GLuint>(texcoordLocation), "aTexcoord");
        }
        glLinkProgram(program);
        GLint linked = GL_FALSE;
        glGetProgramiv(program, GL_LINK_STATUS, &linked);
        if (linked != GL_TRUE) {
            char log[512] = {};
            glGetProgramInfoLog(program, sizeof log, nullptr, log);
            HDR_LOG("%d ERROR: gain-map variant program did not link: %s\n", __LINE__, log);
            glDeleteProgram(program);
            program = 0;
        }
    }
    glDeleteShader(vertex);
    glDeleteShader(fragment);
    return program;
}

GLuint GainMapVariantPrograms::Prepare(const GainMapVariant& variant, GLuint registeredProgram,
                                       const char* vertexSource, GLint positionLocation, GLint texcoordLocation,
                                       const GainMapVariantValues& values)
{
    const int index = GainMapVariantIndex(variant);
    if (index < 0 || registeredProgram == 0 || failed_[index]) {
        return 0;
    }
    if (programs_[index] == 0) {
        programs_[index] = Build(variant, vertexSource, positionLocation, texcoordLocation);
        if (programs_[index] == 0) {
            // Not tried again: the registered program draws this class.
            failed_[index] = true;
            glUseProgram(registeredProgram);
            return 0;
        }
    }
    const GLuint program = programs_[index];
    glUseProgram(program);
    if (sharedWith_[index] != registeredProgram) {
        shared_[index] = FindSharedUniforms(registeredProgram, program);
        sharedWith_[index] = registeredProgram;
        flatChromaLocation_[index] = glGetUniformLocation(program, kFlatGainChromaUniform);
        logCurvesLocation_[index] = glGetUniformLocation(program, kLogCurveConstantsUniform);
        packedGainLocation_[index] = glGetUniformLocation(program, kPackedGainMapSampler);
    }
    CopySharedUniforms(registeredProgram, shared_[index]);
    if (variant.flatGainChroma) {
        glUniform3fv(flatChromaLocation_[index], 1, values.flatChroma);
    }
    if (variant.logDomain) {
        glUniform4fv(logCurvesLocation_[index], 1, values.logCurves);
    }
    if (variant.packedGain && !variant.flatGainChroma) {
        glUniform1i(packedGainLocation_[index], values.packedGainUnit);
    }
    return program;
}

void GainMapVariantPrograms::Release()
{
    for (GLuint& program : programs_) {
        if (program != 0) {
            glDeleteProgram(program);
        }
    }
    Forget();
}

void GainMapVariantPrograms::Forget()
{
    programs_.fill(0);
    failed_.fill(false);
    for (std::vector<SharedUniform>& shared : shared_) {
        shared.clear();
    }
    sharedWith_.fill(0);
    flatChromaLocation_.fill(-1);
    logCurvesLocation_.fill(-1);
    packedGainLocation_.fill(-1);
}

int GainMapVariantPrograms::BuiltCount() const
{
    int count = 0;
    for (GLuint program : programs_) {
        count += program != 0 ? 1 : 0;
    }
    return count;
}

bool GainMapVariantPrograms::Built(const GainMapVariant& variant) const
{
    const int index = GainMapVariantIndex(variant);
    return index >= 0 && programs_[index] != 0;
}

std::vector<SharedUniform> FindSharedUniforms(GLuint from, GLuint to)
{
    std::vector<SharedUniform> shared;
    GLint count = 0;
    glGetProgramiv(to, GL_ACTIVE_UNIFORMS, &count);
    GLint longest = 0;
    glGetProgramiv(to, GL_ACTIVE_UNIFORM_MAX_LENGTH, &longest);
    std::vector<char> name(static_cast<size_t>(longest > 0 ? longest : 1) + 1);
    for (GLint i = 0; i < count; ++i) {
        GLint size = 0;
        GLenum type = 0;
        glGetActiveUniform(to, static_cast<GLuint>(i), static_cast<GLsizei>(name.size()), nullptr, &size, &type,
                           name.data());
        // Arrays are reported by their first element ("x[0]").
        std::string base = name.data();
        const size_t bracket = base.find('[');
        if (bracket != std::string::npos) {
            base.resize(bracket);
        }
        for (GLint element = 0; element < size; ++element) {
            const std::string elementName = size > 1 ? base + "[" + std::to_string(element) + "]" : base;
            SharedUniform uniform;
            uniform.from = glGetUniformLocation(from, elementName.c_str());
            uniform.to = glGetUniformLocation(to, elementName.c_str());
            uniform.type = type;
            if (uniform.from >= 0 && uniform.to >= 0) {
                shared.push_back(uniform);
            }
        }
    }
    return shared;
}

bool ReadLogDomainConstants(GLuint registered, int32_t inputCurve, float constants[4])
{
    float epsilonSdr[4] = {};
    float epsilonHdr[4] = {};
    float trfnInv[7] = {};
    float inTrfn[7] = {};
    if (!ReadFloats(registered, "epsilonSdr", 4, false, epsilonSdr) ||
        !ReadFloats(registered, "epsilonHdr", 4, false, epsilonHdr) ||
        !ReadFloats(registered, "trfn_inv", 7, true, trfnInv) || !ReadFloats(registered, "in_trfn", 7, true, inTrfn) ||
        !LogDomainApplies(inputCurve, inTrfn, trfnInv, epsilonSdr, epsilonHdr)) {
        return false;
    }
    LogDomainConstants(inputCurve, inTrfn, trfnInv, constants);
    return true;
}

bool ReadAffineGainCurve(GLuint registered)
{
    float points[3] = {};
    float grads[3] = {};
    return ReadFloats(registered, "curve_gain_point", 3, false, points) &&
           ReadFloats(registered, "curve_gain_grad", 3, false, grads) && GainCurveIsAffine(points, grads);
}

void CopySharedUniforms(GLuint from, const std::vector<SharedUniform>& shared)
{
    for (const SharedUniform& uniform : shared) {
        GLfloat f[16] = {};
        GLint n[4] = {};
        switch (uniform.type) {
        case GL_FLOAT:
            glGetUniformfv(from, uniform.from, f);
            glUniform1fv(uniform.to, 1, f);
            break;
        case GL_FLOAT_VEC3:
            glGetUniformfv(from, uniform.from, f);
            glUniform3fv(uniform.to, 1, f);
            break;
        case GL_FLOAT_VEC4:
            glGetUniformfv(from, uniform.from, f);
            glUniform4fv(uniform.to, 1, f);
            break;
        case GL_FLOAT_MAT4:
            glGetUniformfv(from, uniform.from, f);
            glUniformMatrix4fv(uniform.to, 1, GL_FALSE, f);
            break;
        case GL_INT:
        case GL_SAMPLER_2D:
            glGetUniformiv(from, uniform.from, n);
            glUniform1i(uniform.to, n[0]);
            break;
        default:
            break;
        }
    }
}
