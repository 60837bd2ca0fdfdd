package corvanta.util;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.charset.Charset;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;

/**
 * A repository on two disks, d1 and d2, with limits that no fill of the real disk reaches. New resources go to d1 as
 * long as it is there.
 */
final class TestRepository {
    /** A resource whose place below a disk is known by heart. */
    static final String ID = "2009";

    static final String PLACE = "FP/IA/L3/2009";

    /** 0 is no limit, but for switching disks: there it is one that is always reached. */
    private static final String LIMITS = "remindLimit=0\nwarnLimit=0\nwarn2Limit=0\nwarn3Limit=0\n"
            + "switchLimit=%d\nfullLimit=0\ncleanLimit=0\nmoveLimit=0\n";

    private static final int NEVER = 101;

    final String root;

    private TestRepository(Path directory, int switchLimit, String disks) {
        root = directory.toString();
        write(directory.resolve("d1/repositorypart.cfg"), "");
        write(directory.resolve("d2/repositorypart.cfg"), "");
        write(directory.resolve("repository.cfg"), "mountPoints=" + disks + "\n" + String.format(LIMITS, switchLimit));
    }

    static TestRepository in(Path directory) {
        return new TestRepository(directory.resolve("rep"), NEVER, "d1\\d2");
    }

    /** Every disk has reached the limit at which new resources go to the emptiest one. */
    static TestRepository switching(Path directory) {
        return new TestRepository(directory.resolve("rep"), 0, "d1\\d2");
    }

    /** The configuration names a disk without a directory, so every call throws in the library. */
    static TestRepository broken(Path directory) {
        return new TestRepository(directory.resolve("broken"), NEVER, "d1\\gone");
    }

    static TestRepository named(Path root) {
        return new TestRepository(root, NEVER, "d1\\d2");
    }

    Path disk(String name) {
        return Path.of(root, name);
    }

    /** Where the resource {@link #ID} is when it is on that disk. */
    Path place(String disk) {
        return disk(disk).resolve(PLACE);
    }

    void takeOut(String disk) {
        move(disk(disk).resolve("repositorypart.cfg"), "repositorypart.no");
    }

    void putBack(String disk) {
        move(disk(disk).resolve("repositorypart.no"), "repositorypart.cfg");
    }

    Path lockFile(String id) {
        String name = "semaphore_KTRepositoryHandler-" + root.replace('/', '_') + "-" + id.replace('/', '_');
        return Path.of(System.getenv("LOCK_VAR"), name);
    }

    /** What another process does that holds the resource. */
    void lock(String id) {
        write(lockFile(id), "");
    }

    void unlock(String id) {
        try {
            Files.delete(lockFile(id));
        } catch (IOException failure) {
            throw new UncheckedIOException(failure);
        }
    }

    /** The names of all resources on all disks, as they stand there. */
    String namesOnDisk(Charset charset) {
        try {
            Process find = new ProcessBuilder("find", root, "-mindepth", "5", "-maxdepth", "5", "-printf", "%f\\n")
                    .redirectError(ProcessBuilder.Redirect.INHERIT)
                    .start();
            return new String(find.getInputStream().readAllBytes(), charset).trim();
        } catch (IOException failure) {
            throw new UncheckedIOException(failure);
        }
    }

    static void write(Path file, String content) {
        try {
            Files.createDirectories(file.getParent());
            Files.writeString(file, content, StandardCharsets.UTF_8);
        } catch (IOException failure) {
            throw new UncheckedIOException(failure);
        }
    }

    private static void move(Path file, String name) {
        try {
            Files.move(file, file.resolveSibling(name));
        } catch (IOException failure) {
            throw new UncheckedIOException(failure);
        }
    }
}
