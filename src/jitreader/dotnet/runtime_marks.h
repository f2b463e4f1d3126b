#ifndef QUARVEL_DOTNET_RUNTIME_MARKS_H
#define QUARVEL_DOTNET_RUNTIME_MARKS_H

#include "dotnet/assembly_metadata.h"

#include <cstdint>

QUARVEL_NAMESPACE_BEGIN

// What an assembly says about the runtime that runs it. Either bit marks a
// .NET Core (.NET 5 and later) module.
enum RuntimeMark : uint32_t {
    // Built for .NET Core: its TargetFrameworkAttribute names .NETCoreApp, or
    // it references the Core corlib (System.Private.CoreLib, System.Runtime
    // 4.2 or later), or it is System.Private.CoreLib.
    kTargetsCore = 0x1,
    // Holds ReadyToRun code (an "RTR" managed native header, or a machine
    // value XORed with a non-Windows system), which only .NET Core runs.
    kCoreReadyToRun = 0x2,
};

// The RuntimeMark bits of an assembly; 0 for .NET Framework, .NET Standard
// and assemblies that say nothing.
uint32_t runtimeMarks(const AssemblyMetadata& assembly);

QUARVEL_NAMESPACE_END

#endif
