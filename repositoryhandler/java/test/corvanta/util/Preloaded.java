package corvanta.util;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;

/** The process that the tests run in, as {@code preload.cpp} changed it. */
final class Preloaded {
    private static final Path LOG = Path.of(System.getenv("KT_LOG_FILE"));

    static {
        System.load(System.getProperty("kt.preload"));
    }

    private Preloaded() {}

    /** How many blocks C++ code has on the heap now. */
    static native int liveBlocks();

    /** From now on the library does not wait between two attempts for a lock; or it does again. */
    static native void skipPauses(boolean skip);

    /** The messages since the last call, each as "LEVEL TEXT"; an error is level 3. */
    static List<String> takeMessages() {
        try {
            if (!Files.exists(LOG)) {
                return List.of();
            }
            String text = Files.readString(LOG, StandardCharsets.ISO_8859_1);
            Files.delete(LOG);
            return List.of(text.split("\n"));
        } catch (IOException failure) {
            throw new UncheckedIOException(failure);
        }
    }
}
