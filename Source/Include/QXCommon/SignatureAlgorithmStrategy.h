#pragma once
// SignatureAlgorithmStrategy: the process-wide hash algorithm, read from
// HKLM\SOFTWARE\Kestrova Technologies\Runwarden\MessagesConfig\Properties,
// value "SignatureAlgorithm" (REG_DWORD 0 SHA-1, 1 SHA-256, 2 Adler-32).
// There is no default: until the registry or a caller sets it, no strategy
// is made. CalculateAdler32Checksum switches it to Adler-32.

#include "QXCommonAPI.h"
#include "HashStrategy.h"
#include "SignatureAlgorithm.h"

#include <memory>
#include <string>

// Replaces the path in buffer by the file's Adler-32 text (8 characters and
// NUL: the buffer must hold at least 9) and makes Adler-32 the process's
// algorithm for every later GenerateFileHash. Returns 1, or 0 with the
// buffer unchanged.
QXCOMMON_C_API int CalculateAdler32Checksum(wchar_t* buffer);

class QXCOMMON_API SignatureAlgorithmStrategy
{
public:
    static SignatureAlgorithmStrategy* Get();

    SignatureAlgorithmStrategy(const SignatureAlgorithmStrategy&) = delete;
    // Takes over the other object's algorithm.
    SignatureAlgorithmStrategy& operator=(const SignatureAlgorithmStrategy& other);

    // Reads the value; on any failure the algorithm becomes "not set" and
    // the answer is false. A value the algorithm already has also answers
    // false, and an invalid one (3 or more) leaves the algorithm as it was.
    bool GetSignatureAlgorithmFromRegistry();
    // False for an invalid value and for the algorithm already in force.
    bool SetSignatureAlgorithm(SignatureAlgorithm algorithm);
    SignatureAlgorithm GetCurrentSignatureAlgorithm() const;
    // A new strategy for the algorithm in force, or empty when none is set.
    std::unique_ptr<QXCommon::IHashStrategy> GetHashStrategy();

private:
    // Lets CalculateAdler32Checksum set the algorithm and take a strategy
    // under one hold of the lock.
    friend struct SignatureAlgorithmStrategyAccess;

    SignatureAlgorithmStrategy();
    ~SignatureAlgorithmStrategy();

    bool SetSignatureAlgorithmInternal(SignatureAlgorithm algorithm);
    bool ValidataSignatureAlgorithm(SignatureAlgorithm algorithm);
    std::wstring GetSignatureAlgorithmName();

    SignatureAlgorithm m_algorithm;
    mutable CRITICAL_SECTION m_lock;
};
