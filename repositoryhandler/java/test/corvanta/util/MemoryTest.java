package corvanta.util;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.lang.management.ManagementFactory;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import javax.management.ObjectName;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.EnumSource;

/**
 * Many calls of each native leave nothing behind: neither blocks on the heap of the C++ code, which are counted, nor
 * copies of strings in the machine, whose own accounts (NativeMemoryTracking) are asked. Repository and id are long, so
 * that one copy lost per call would be twice the growth that is allowed, or more.
 */
class MemoryTest {
    private static final int CALLS = 10_000;
    private static final int WARM_UP = 1_000; // what is built once: registry entry, open log, compiled code
    private static final int ID_LENGTH = 90; // with the root below a lock file's name of 255
    private static final int ROOT_LENGTH = 110;
    private static final long ALLOWED_KILOBYTES = 400;

    private final RepositoryHandler handler = new RepositoryHandler();
    private final String id = "i".repeat(ID_LENGTH);

    @TempDir
    Path directory;

    private TestRepository repository;

    @BeforeEach
    void makeRepository() {
        int missing = Math.max(1, ROOT_LENGTH - directory.toString().length());
        repository = TestRepository.named(directory.resolve("r".repeat(missing)));
    }

    @ParameterizedTest
    @EnumSource(Native.class)
    void callsThatSucceedLeaveNothing(Native method) throws Exception {
        handler.createDirectoryNative(repository.root, id, false);
        Files.createFile(Path.of(handler.createLocationNative(repository.root, "file", false)));
        assertLeavesNothing(() -> method.on(handler, repository.root, id));
    }

    @Test
    void makingAndRemovingLeavesNothing() throws Exception {
        Path place = Path.of(handler.createLocationNative(repository.root, id, false));
        Files.createFile(place.resolveSibling("neighbour")); // or the directories above come and go, which takes long
        assertLeavesNothing(() -> {
            handler.createDirectoryNative(repository.root, id, false);
            handler.removeResourceNative(repository.root, id);
        });
    }

    @ParameterizedTest
    @EnumSource(value = Native.class, names = {"SET_TIMES", "GET_TIMES", "REMOVE", "CHECK", "GET_LOCATION"})
    void callsForAMissingResourceLeaveNothing(Native method) throws Exception {
        assertLeavesNothing(() -> method.on(handler, repository.root, id));
    }

    @ParameterizedTest
    @EnumSource(Native.class)
    void callsThatThrowInTheLibraryLeaveNothing(Native method) throws Exception {
        TestRepository.write(Path.of(repository.root, "repository.cfg"), "mountPoints=gone\n");
        assertLeavesNothing(() -> method.on(handler, repository.root, id));
    }

    @Test
    void callsThatFailInTheMachineLeaveNothing() throws Exception {
        assertLeavesNothing(() -> {
            try {
                handler.setTimePropertiesNative(repository.root, id, new int[1]);
            } catch (ArrayIndexOutOfBoundsException wanted) {
                return;
            }
            throw new AssertionError("the short array was taken");
        });
    }

    private static void assertLeavesNothing(Runnable call) throws Exception {
        repeat(WARM_UP, call);
        int blocks = Preloaded.liveBlocks();
        long kilobytes = kilobytesOfTheMachine();
        repeat(CALLS, call);
        assertEquals(blocks, Preloaded.liveBlocks(), "blocks of the C++ code");
        long growth = kilobytesOfTheMachine() - kilobytes;
        assertTrue(growth <= ALLOWED_KILOBYTES, "the machine's memory grew by " + growth + " KB");
    }

    private static void repeat(int times, Runnable call) {
        for (int time = 0; time < times; ++time) {
            call.run();
        }
        Preloaded.takeMessages();
    }

    /** What the machine has allocated for its internal use, such as the bytes of a string for a native. */
    private static long kilobytesOfTheMachine() throws Exception {
        String summary = (String) ManagementFactory.getPlatformMBeanServer().invoke(
                new ObjectName("com.sun.management:type=DiagnosticCommand"),
                "vmNativeMemory",
                new Object[] {new String[] {"summary"}},
                new String[] {String[].class.getName()});
        Matcher line = Pattern.compile("Internal \\(reserved=\\d+KB, committed=(\\d+)KB\\)").matcher(summary);
        assertTrue(line.find(), summary);
        return Long.parseLong(line.group(1));
    }
}
