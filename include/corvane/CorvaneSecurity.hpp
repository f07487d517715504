// Umbrella header of libCorvaneSecurity.
#pragma once

#include "corvane/BigInt.hpp"
#include "corvane/Bytes.hpp"
#include "corvane/C4Identifier.hpp"
#include "corvane/ChecksumGenerator.hpp"
#include "corvane/ChecksumLookup.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"
#include "corvane/CorvaneLog.hpp"
#include "corvane/DigestChecksumGenerators.hpp"
#include "corvane/Exception.hpp"
#include "corvane/FileAttributeKey.hpp"
#include "corvane/FileAttributeKeyCollections.hpp"
#include "corvane/IOValidationAttributes.hpp"
#include "corvane/Version.hpp"
#include "corvane/XXHashChecksumGenerators.hpp"
#include "corvane/XXHashImplementation.hpp"
