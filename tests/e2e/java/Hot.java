import java.io.InputStream;
import java.lang.invoke.MethodHandles;
import java.util.ArrayList;
import java.util.List;
import java.util.function.IntUnaryOperator;
import java.util.function.LongUnaryOperator;
import java.util.stream.IntStream;

// The end-to-end workload: one known hottest method (sumRange, kept out of its
// callers), a deep chain of small methods for the compiler to inline, lambdas
// and streams, and a steady churn of short-lived hidden classes whose compiled
// code is thrown away so the small code cache reuses its addresses.
public class Hot {
    static volatile long sink;

    static long sumRange(int from, int to) {
        long s = 0;
        for (int i = from; i < to; i++) {
            s += (i ^ (i >>> 3)) * 31L + (s >>> 7);
        }
        return s;
    }

    static int d1(int x) { return d2(x + 1) ^ 3; }
    static int d2(int x) { return d3(x * 3) + 1; }
    static int d3(int x) { return d4(x ^ 0x55) - 2; }
    static int d4(int x) { return d5(x + 7) * 5; }
    static int d5(int x) { return d6(x >>> 1) + x; }
    static int d6(int x) { return d7(x | 1) ^ x; }
    static int d7(int x) { return d8(x - 3) + 11; }
    static int d8(int x) { return x * 7 + (x >>> 5); }

    static long deep(int n) {
        long s = 0;
        for (int i = 0; i < n; i++) {
            s += d1(i);
        }
        return s;
    }

    static long lambdas(int n) {
        List<IntUnaryOperator> ops = new ArrayList<>();
        ops.add(x -> x + 1);
        ops.add(x -> x * 3);
        ops.add(x -> x ^ 0x55);
        ops.add(x -> Integer.rotateLeft(x, 5));
        long s = 0;
        for (int i = 0; i < n; i++) {
            s += ops.get(i & 3).applyAsInt(i);
        }
        return s + IntStream.range(0, n).map(x -> x * x).filter(x -> (x & 1) == 0).asLongStream().sum();
    }

    // Each copy is compiled and runs hot for a while, then is dropped; a later
    // System.gc() unloads it, and the code cache hands its space to new code.
    static long churn(byte[] payload, int copies, int calls) throws Exception {
        long s = 0;
        for (int r = 0; r < copies; r++) {
            Class<?> c = MethodHandles.lookup().defineHiddenClass(payload, true).lookupClass();
            LongUnaryOperator op = (LongUnaryOperator) c.getDeclaredConstructor().newInstance();
            for (int i = 0; i < calls; i++) {
                s += op.applyAsLong(i);
            }
        }
        return s;
    }

    public static void main(String[] args) throws Exception {
        final long millis = args.length > 0 ? Long.parseLong(args[0]) : 6000;
        byte[] payload;
        try (InputStream in = Hot.class.getResourceAsStream("/Payload.class")) {
            payload = in.readAllBytes();
        }
        final long start = System.nanoTime();
        final long end = start + millis * 1_000_000L;
        // Unloading goes by the clock, not by rounds: a slow machine still
        // frees code often enough for the cache to hand its space out again.
        final long gcEvery = 250_000_000L;
        long nextGc = start + gcEvery;
        long s = 0;
        int round = 0;
        for (long now = start; now < end; now = System.nanoTime()) {
            s += sumRange(round, round + 4_000_000);
            s += deep(2_000_000);
            s += lambdas(100_000);
            s += churn(payload, 1, 30_000);
            ++round;
            if (now >= nextGc) {
                System.gc();
                nextGc = System.nanoTime() + gcEvery;
            }
        }
        sink = s;
        // Let the VM hand out the last compile events before it goes.
        Thread.sleep(300);
        System.out.println("rounds " + round);
    }
}
