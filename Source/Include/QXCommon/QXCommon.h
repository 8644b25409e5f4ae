#pragma once
// Everything QXCommon exports.

#include "QXCommonAPI.h"

#include "FunctionTrace.h"
#include "Guid.h"
#include "HResult.h"
#include "OSVersionHelper.h"
#include "QXCommonFunctions.h"
#include "RegistryHelper.h"
#include "WOW64FSRedirectEnabler.h"

#include "FilePathPatternMatcher.h"
#include "GlobWildcardString.h"
#include "QXRegEx.h"
#include "RegExHelpers.h"

#include "CommandLineSplitter.h"
#include "EnvironmentBlockEx.h"
#include "EnvironmentEx.h"
#include "ExpandArgs.h"
#include "QXEnvironmentVars.h"
#include "QXEnvironmentVars_ProcessEnv.h"

#include "ChecksumStrategyAdler32.h"
#include "DataLoader.h"
#include "HashStrategy.h"
#include "HashStrategySha.h"
#include "HashStrategyShaCacheHelper.h"
#include "SignatureAlgorithm.h"
#include "SignatureAlgorithmStrategy.h"

#include "ChangeFileOwner.h"

#include "ImpersonationSaver.h"
#include "LsaUtil.h"
#include "ProcessIDAndCreateTime.h"
#include "QXAccessTokenMembership.h"
#include "QxAccessToken.h"

#include "DigitalCertificate.h"
#include "DigitalCertificateUI.h"
#include "VerifySignedFile.h"
#include "PipeImpersonateClient.h"
#include "PipeImpersonateServer.h"
