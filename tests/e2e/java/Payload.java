import java.util.function.LongUnaryOperator;

// Defined again and again as a hidden class; each copy gets compiled and, once
// dropped, unloaded.
public class Payload implements LongUnaryOperator {
    @Override
    public long applyAsLong(long v) {
        long s = v;
        for (int i = 0; i < 40; i++) {
            s = mix(s, i);
        }
        return s;
    }

    private static long mix(long s, int i) {
        return s * 6364136223846793005L + i ^ (s >>> 29);
    }
}
