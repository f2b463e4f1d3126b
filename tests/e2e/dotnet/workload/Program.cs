using System;
using System.Collections.Generic;
using System.Diagnostics;
using System.Linq;
using System.Runtime.CompilerServices;
using System.Reflection.Emit;
using System.Runtime.Loader;
using System.Threading.Tasks;

namespace Workload
{
    // A .NET program whose code churns the way real services do: a hot method
    // promoted from tier 0 to tier 1, a long loop entered through on-stack
    // replacement, generic code over value and reference types, lambdas, async
    // methods, a plugin loaded into a collectible context, used and unloaded
    // again and again (its code freed), and dynamic methods whose freed code
    // memory is reused by the next ones.
    //
    //   dotnet Workload.dll [millis] [plugin.dll]
    public static class Program
    {
        public static int Main(string[] args)
        {
            int millis = args.Length > 0 ? int.Parse(args[0]) : 3000;
            string plugin = args.Length > 1 ? args[1] : null;
            var clock = Stopwatch.StartNew();
            long checksum = LongLoop(300_000_000);
            int rounds = 0, unloaded = 0, kernels = 0;
            // Steady work alone first: with no new code to compile for a while
            // the runtime promotes the hot methods to tier 1.
            while (clock.ElapsedMilliseconds < millis * 2 / 5)
                checksum += Steady(rounds++);
            // Then code comes and goes beside it: the plugin in a collectible
            // context, and dynamic methods whose code is freed and reused.
            while (clock.ElapsedMilliseconds < millis)
            {
                checksum += Steady(rounds);
                checksum += Kernels.RunOne(rounds);
                kernels++;
                if (rounds % 8 == 0)
                    GC.Collect();
                if (plugin != null && rounds % 4 == 0)
                    unloaded += RunPlugin(plugin, rounds, ref checksum);
                rounds++;
            }
            Console.WriteLine($"rounds {rounds} plugin unloads {unloaded} dynamic methods {kernels} checksum {checksum}");
            return 0;
        }

        [MethodImpl(MethodImplOptions.NoInlining)]
        static long Steady(int round)
        {
            long checksum = Hot.Mix(round);
            checksum += Generic<int>.Fold(Enumerable.Range(round, 2000).ToArray(), (a, b) => a + b);
            checksum += Generic<string>.Fold(new[] { "a", "bb", "ccc", round.ToString() }, (a, b) => a ?? b).Length;
            checksum += Generic<Pair>.Fold(new[] { new Pair(round, 1), new Pair(2, 3) }, (a, b) => new Pair(a.X + b.X, a.Y * b.Y)).X;
            checksum += Closures(round);
            checksum += Async.Chain(round).GetAwaiter().GetResult();
            return checksum;
        }

        // Called once: its loop starts in tier 0 and continues in OSR code.
        [MethodImpl(MethodImplOptions.NoInlining)]
        static long LongLoop(int n)
        {
            long s = 0;
            for (int i = 0; i < n; i++)
                s += (i ^ (s >> 3)) & 7;
            return s;
        }

        [MethodImpl(MethodImplOptions.NoInlining)]
        static long Closures(int round)
        {
            int captured = round;
            Func<int, long> square = x => (long)x * x + captured;
            Func<int, long> twice = x => square(x) * 2;
            long sum = 0;
            for (int i = 0; i < 3000; i++)
                sum += twice(i) - square(i);
            return sum;
        }

        // Loads the plugin into its own collectible context, runs it, unloads
        // it and collects until the context is gone; 1 when it went.
        [MethodImpl(MethodImplOptions.NoInlining)]
        static int RunPlugin(string path, int round, ref long checksum)
        {
            WeakReference context = LoadRunUnload(path, round, ref checksum);
            for (int i = 0; i < 10 && context.IsAlive; i++)
            {
                GC.Collect();
                GC.WaitForPendingFinalizers();
            }
            return context.IsAlive ? 0 : 1;
        }

        [MethodImpl(MethodImplOptions.NoInlining)]
        static WeakReference LoadRunUnload(string path, int round, ref long checksum)
        {
            var context = new AssemblyLoadContext("plugin-" + round, isCollectible: true);
            var assembly = context.LoadFromAssemblyPath(path);
            var run = assembly.GetType("Plugin.Worker").GetMethod("Run");
            checksum += (long)run.Invoke(null, new object[] { round });
            context.Unload();
            return new WeakReference(context);
        }
    }

    public readonly struct Pair
    {
        public readonly long X, Y;
        public Pair(long x, long y) { X = x; Y = y; }
    }

    public static class Hot
    {
        // Called every round: tier 0, then tier 1 once it is hot.
        [MethodImpl(MethodImplOptions.NoInlining)]
        public static long Mix(int seed)
        {
            long h = seed;
            for (int i = 0; i < 20_000; i++)
                h = (h ^ i) * 0x100000001B3L;
            return h & 0xFF;
        }
    }

    public static class Generic<T>
    {
        // Shared code for reference types, a specialised copy for each value type.
        [MethodImpl(MethodImplOptions.NoInlining)]
        public static T Fold(T[] items, Func<T, T, T> combine)
        {
            T acc = items[0];
            for (int r = 0; r < 50; r++)
                for (int i = 1; i < items.Length; i++)
                    acc = combine(acc, items[i]);
            return acc;
        }
    }

    public static class Async
    {
        public static async Task<long> Chain(int round)
        {
            long a = await Step(round);
            long b = await Step((int)a);
            return a + b;
        }

        static async Task<long> Step(int x)
        {
            await Task.Yield();
            long s = 0;
            for (int i = 0; i < 5000; i++)
                s += (x + i) % 13;
            return s;
        }
    }

    // Dynamic methods: compiled on demand, collected when no longer referenced,
    // their code memory handed to the next ones, so one address holds several
    // kernels over time (each named after its number).
    public static class Kernels
    {
        [MethodImpl(MethodImplOptions.NoInlining)]
        public static long RunOne(int round)
        {
            var method = new DynamicMethod("Kernel" + (round % 5), typeof(long), new[] { typeof(long) });
            var il = method.GetILGenerator();
            il.DeclareLocal(typeof(long)); // s
            il.DeclareLocal(typeof(long)); // i
            Label loop = il.DefineLabel(), check = il.DefineLabel();
            il.Emit(OpCodes.Ldc_I8, 0L);
            il.Emit(OpCodes.Stloc_0);
            il.Emit(OpCodes.Ldc_I8, 0L);
            il.Emit(OpCodes.Stloc_1);
            il.Emit(OpCodes.Br, check);
            il.MarkLabel(loop); // s = s * 31 + i + round; i++
            il.Emit(OpCodes.Ldloc_0);
            il.Emit(OpCodes.Ldc_I8, 31L);
            il.Emit(OpCodes.Mul);
            il.Emit(OpCodes.Ldloc_1);
            il.Emit(OpCodes.Add);
            il.Emit(OpCodes.Ldc_I8, (long)round);
            il.Emit(OpCodes.Add);
            il.Emit(OpCodes.Stloc_0);
            il.Emit(OpCodes.Ldloc_1);
            il.Emit(OpCodes.Ldc_I8, 1L);
            il.Emit(OpCodes.Add);
            il.Emit(OpCodes.Stloc_1);
            il.MarkLabel(check);
            il.Emit(OpCodes.Ldloc_1);
            il.Emit(OpCodes.Ldarg_0);
            il.Emit(OpCodes.Blt, loop);
            il.Emit(OpCodes.Ldloc_0);
            il.Emit(OpCodes.Ret);
            var kernel = (Func<long, long>)method.CreateDelegate(typeof(Func<long, long>));
            return kernel(2_000_000) & 0xFF;
        }
    }
}
