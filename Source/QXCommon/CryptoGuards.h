#pragma once
// Scope guards for CryptoAPI objects: stores, messages, certificate and chain
// contexts and chain engines.

#include <windows.h>
#include <wincrypt.h>

#include <memory>

namespace QXCommon::Detail
{
struct CertStoreCloser
{
    void operator()(HCERTSTORE store) const noexcept { ::CertCloseStore(store, 0); }
};
using CertStorePtr = std::unique_ptr<void, CertStoreCloser>;

struct CryptMsgCloser
{
    void operator()(HCRYPTMSG message) const noexcept { ::CryptMsgClose(message); }
};
using CryptMsgPtr = std::unique_ptr<void, CryptMsgCloser>;

struct CertContextFreer
{
    void operator()(PCCERT_CONTEXT context) const noexcept { ::CertFreeCertificateContext(context); }
};
using CertContextPtr = std::unique_ptr<const CERT_CONTEXT, CertContextFreer>;

struct ChainFreer
{
    void operator()(PCCERT_CHAIN_CONTEXT chain) const noexcept { ::CertFreeCertificateChain(chain); }
};
using ChainPtr = std::unique_ptr<const CERT_CHAIN_CONTEXT, ChainFreer>;

struct ChainEngineFreer
{
    void operator()(HCERTCHAINENGINE engine) const noexcept { ::CertFreeCertificateChainEngine(engine); }
};
using ChainEnginePtr = std::unique_ptr<void, ChainEngineFreer>;
} // namespace QXCommon::Detail
