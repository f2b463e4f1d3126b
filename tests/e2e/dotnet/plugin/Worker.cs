using System.Runtime.CompilerServices;

namespace Plugin
{
    // Each load of the plugin jits these again into the collectible context's
    // code heap; unloading the context frees that code.
    public static class Worker
    {
        public static long Run(int round)
        {
            long total = 0;
            for (int i = 0; i < 40; i++)
                total += Spin(round + i);
            return total;
        }

        [MethodImpl(MethodImplOptions.NoInlining)]
        static long Spin(int seed)
        {
            long x = seed;
            for (int i = 0; i < 200_000; i++)
                x = x * 6364136223846793005L + 1442695040888963407L;
            return x & 0xFFFF;
        }
    }
}
