using System;
using System.Diagnostics;
using System.Reflection.Emit;
using System.Runtime.CompilerServices;

// A small .NET program for the jitdump and perf map end-to-end test: hot
// methods promoted from tier 0 to tier 1, generic code over value and
// reference types, and dynamic methods made, run hot and dropped round after
// round, so that later code is placed where freed code was.
//
//   dotnet Churn.dll [millis]
public static class Program
{
    public static int Main(string[] args)
    {
        int millis = args.Length > 0 ? int.Parse(args[0]) : 3000;
        var clock = Stopwatch.StartNew();
        long checksum = 0;
        int round = 0;
        while (clock.ElapsedMilliseconds < millis)
        {
            checksum += Hot.Mix(round);
            checksum += Fold<int>.Sum(new[] { round, 2, 3, 4 }, (a, b) => a + b);
            checksum += Fold<string>.Sum(new[] { "a", "bb", round.ToString() }, (a, b) => a.Length > b.Length ? a : b).Length;
            checksum += Dynamic.RunOne(round);
            if (round % 16 == 0)
                GC.Collect();
            round++;
        }
        Console.WriteLine($"pid={Environment.ProcessId} rounds={round} checksum={checksum}");
        return 0;
    }
}

static class Hot
{
    [MethodImpl(MethodImplOptions.NoInlining)]
    public static long Mix(int seed)
    {
        long h = seed;
        for (int i = 0; i < 200_000; i++)
            h = (h * 31 + i) ^ (h >> 7);
        return h;
    }
}

static class Fold<T>
{
    [MethodImpl(MethodImplOptions.NoInlining)]
    public static T Sum(T[] items, Func<T, T, T> add)
    {
        T acc = items[0];
        for (int r = 0; r < 2000; r++)
            for (int i = 1; i < items.Length; i++)
                acc = add(acc, items[i]);
        return acc;
    }
}

// Each round makes a method of its own, runs it hot and drops it: its code
// memory is freed once the method is collected.
static class Dynamic
{
    public static long RunOne(int round)
    {
        var method = new DynamicMethod("Kernel_" + round, typeof(long), new[] { typeof(long) }, typeof(Dynamic).Module);
        ILGenerator il = method.GetILGenerator();
        Label loop = il.DefineLabel(), done = il.DefineLabel();
        il.DeclareLocal(typeof(long));
        il.DeclareLocal(typeof(int));
        il.Emit(OpCodes.Ldarg_0);
        il.Emit(OpCodes.Stloc_0);
        il.MarkLabel(loop);
        il.Emit(OpCodes.Ldloc_1);
        il.Emit(OpCodes.Ldc_I4, 300_000);
        il.Emit(OpCodes.Bge, done);
        il.Emit(OpCodes.Ldloc_0);
        il.Emit(OpCodes.Ldc_I8, 17L + round % 13);
        il.Emit(OpCodes.Mul);
        il.Emit(OpCodes.Ldloc_1);
        il.Emit(OpCodes.Conv_I8);
        il.Emit(OpCodes.Xor);
        il.Emit(OpCodes.Stloc_0);
        il.Emit(OpCodes.Ldloc_1);
        il.Emit(OpCodes.Ldc_I4_1);
        il.Emit(OpCodes.Add);
        il.Emit(OpCodes.Stloc_1);
        il.Emit(OpCodes.Br, loop);
        il.MarkLabel(done);
        il.Emit(OpCodes.Ldloc_0);
        il.Emit(OpCodes.Ret);
        var kernel = (Func<long, long>)method.CreateDelegate(typeof(Func<long, long>));
        return kernel(round);
    }
}
