package corvanta.util;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.time.Instant;
import java.util.List;
import java.util.Objects;
import java.util.Optional;
import java.util.function.IntSupplier;
import java.util.function.Supplier;

/**
 * Repositories of resources (directories and files, each with an id) that are spread over several disks of this
 * machine: where a resource lives, a place for a new one, its times, what there is, and how full the disks are.
 *
 * <p>A repository is named by the path of its root directory, which holds {@code repository.cfg}. A resource is named
 * by its id, one name without {@code /}. A path that comes back is the caller's to read and write; nothing is opened
 * here and nothing has to be closed.
 *
 * <pre>{@code
 * RepositoryHandler handler = new RepositoryHandler();
 * String path = handler.createDirectory("/srv/repository", "2009", false).orElseThrow();
 * Files.writeString(Path.of(path, "letter.txt"), "Dear customer");
 * }</pre>
 *
 * <h2>Failures</h2>
 *
 * <p>A resource that is not there is an answer: an empty {@link Optional} or a result code. A repository that cannot be
 * used, for instance because a disk that its configuration names has no directory, throws {@link UncheckedIOException};
 * the reason is in the system log under the ident {@code KTRepositoryHandler}. A null argument throws {@link
 * NullPointerException}.
 *
 * <h2>Threads and processes</h2>
 *
 * <p>Any number of processes may work on one repository; they meet at lock files in the directory that the environment
 * variable {@code LOCK_VAR} of each of them names, one and the same. In one process one call runs at a time: the
 * methods without {@code Native} in their name wait for each other, whatever objects they are called on. A call waits
 * up to 30 seconds for a resource that another process holds. {@link #status} belongs to the object, so give each
 * thread its own; an object is cheap.
 *
 * <h2>Ids</h2>
 *
 * <p>Ids become parts of paths and, when a resource is moved or deleted, of shell commands, as they are: use letters,
 * digits, {@code .}, {@code _}, {@code -} and {@code +}. Letters of any alphabet are stored in UTF-8. A character
 * beyond U+FFFF (an emoji, say) is stored in the virtual machine's own form, under which only this class finds it
 * again, so avoid it. To open a path with letters beyond ASCII by {@link java.nio.file.Path}, run the virtual machine
 * in a UTF-8 locale.
 *
 * <h2>The safe mode</h2>
 *
 * <p>With {@code KT_SAFE=1} in its environment the virtual machine works in the safe mode. Then a move that fails, or
 * is cut off by a kill or a power failure, leaves the whole resource at its old place or its new one, where look-ups
 * find it. We recommend it, and then for all processes of a repository: one without it can drop the marks of the
 * others, and leaves parts of copies. What changes:
 *
 * <ol>
 *   <li>Paths reach the shell quoted, so that an id may hold any character but {@code /}. Ids with {@code .} or {@code
 *       ..} as a component are refused: found nowhere, never made. Copies keep owners (as far as the process may give
 *       files away), times, hard links, holes, access control lists and extended attributes.
 *   <li>A copy is flushed to its disk before the original goes; when that fails, the original stays.
 *   <li>A copy is made out of sight, in {@code lost+found} of its disk, and renamed into its place when it is whole:
 *       the user of the process must be able to write there. A copy that failed leaves nothing behind.
 *   <li>Log lines show ids as they are, control characters escaped.
 *   <li>Removal does not follow symbolic links; dangling links and special files inside a resource stop nothing (but a
 *       device is copied by root alone).
 *   <li>The dirty set and the size cache are replaced whole, and processes in this mode lose no mark of each other.
 *   <li>Marks of a balancing pass name the resource, so that a later look-up joins its copies.
 *   <li>A pass that gets nowhere ends at once; a disk listed twice is one.
 *   <li>A lock of this mode whose holder is gone, on this machine and since it started, is taken over.
 * </ol>
 *
 * <p>{@link #getTimes} and {@link #setTimes} wait for the resource in this mode, as the other methods always do. The
 * administrator's guide tells what the safe mode costs, and what it does not do.
 */
public class RepositoryHandler {

    // What the methods with a code answer, and what stands in status.

    /** Found, created, or removed. */
    public static final int FOUND = 0;

    /** Found, but a disk is away on which another copy may be. Nothing is removed then. */
    public static final int DIRTY = 1;

    /** There are several copies, on different disks, that differ and cannot be joined. */
    public static final int CONFLICT = 2;

    /** There is no such resource. */
    public static final int NOT_FOUND = 4;

    /** No disk can take it; or not all of it could be deleted, or moved to join copies. */
    public static final int NOT_CREATED = 8;

    /** Another process held the resource for 30 seconds. */
    public static final int NOT_LOCKED = 16;

    /** The call failed in the library; the reason is in the system log. */
    public static final int FAILED = -1;

    // Bits of getRepositoryStatus. The first four stand when every disk that is there has reached the limit.

    /** Every disk has reached {@code remindLimit}. */
    public static final int STATUS_REMIND = 0x01;

    /** Every disk has reached {@code warnLimit}. */
    public static final int STATUS_WARN = 0x02;

    /** Every disk has reached {@code warn2Limit}. */
    public static final int STATUS_WARN2 = 0x04;

    /** Every disk has reached {@code warn3Limit}. */
    public static final int STATUS_WARN3 = 0x08;

    /** No disk is below both its {@code fullLimit} and its {@code cleanLimit}: no room to move resources to. */
    public static final int STATUS_NOSPACE = 0x20;

    /** Every disk has reached its {@code fullLimit}: nothing can be created. */
    public static final int STATUS_FULL = 0x40;

    /** A disk is missing, and another one is there. */
    public static final int STATUS_INCOMPLETE = 0x80;

    /** No disk is there, or there is no such repository. No other bit is set with it. */
    public static final int STATUS_MISSING = 0x100;

    /** One call of the library at a time: it keeps its repositories for the whole process, without a lock. */
    private static final Object LIBRARY = new Object();

    static {
        System.loadLibrary("KTRepositoryHandler");
    }

    /**
     * What the last call of {@link #getLocation}, {@link #createLocation} or {@link #createDirectory} on this object
     * found: {@link #FOUND}, {@link #DIRTY}, {@link #CONFLICT}, {@link #NOT_FOUND}, {@link #NOT_CREATED}, {@link
     * #NOT_LOCKED}, or {@link #FAILED} when the call threw.
     *
     * <p>The natives write it too, under this name and type. They leave it alone when they fail, and store {@link
     * #FOUND} beside a null path when the resource could not be locked.
     */
    public int status;

    /** Loads the library {@code KTRepositoryHandler} on first use, from {@code java.library.path}. */
    public RepositoryHandler() {}

    /** When a resource was last used and last changed, to the second. */
    public static final class Times {
        private final Instant accessed;
        private final Instant modified;

        private Times(int accessed, int modified) {
            this.accessed = Instant.ofEpochSecond(accessed);
            this.modified = Instant.ofEpochSecond(modified);
        }

        /**
         * When the resource was last used: the access time of its directory or file.
         *
         * @return the time, whole seconds
         */
        public Instant accessed() {
            return accessed;
        }

        /**
         * When the resource was last changed: the modification time of its directory or file.
         *
         * @return the time, whole seconds
         */
        public Instant modified() {
            return modified;
        }
    }

    // The readable methods

    /**
     * Where a resource lives. Its times are set to now: it has been used. {@link #status} tells more.
     *
     * @param repository the root directory
     * @param resource the id
     * @return the path, or empty: there is none, its copies cannot be joined, or it is held by another process
     * @throws UncheckedIOException when the repository cannot be used
     */
    public Optional<String> getLocation(String repository, String resource) {
        return located(repository, resource, () -> getLocationNative(repository, resource));
    }

    /**
     * Where a resource lives or, for a new one, is to be made: the directories above it exist. {@link #status} tells
     * more. Of copies that cannot be joined none is answered, but a new place: where that matters, ask {@link
     * #checkResourceStatus} first.
     *
     * @param repository the root directory
     * @param resource the id
     * @param noDirtyMark do not mark a resource that is made while a disk is away as one of which a copy may be there
     * @return the path, or empty: no disk can take it, or it is held by another process
     * @throws UncheckedIOException when the repository cannot be used
     */
    public Optional<String> createLocation(String repository, String resource, boolean noDirtyMark) {
        return located(repository, resource, () -> createLocationNative(repository, resource, noDirtyMark));
    }

    /**
     * The directory of a resource, made when there is none; for copies that cannot be joined as {@link
     * #createLocation}. {@link #status} tells more. That the directory itself could not be made is not told: look
     * whether it exists before you rely on it.
     *
     * @param repository the root directory
     * @param resource the id
     * @param noDirtyMark do not mark a resource that is made while a disk is away as one of which a copy may be there
     * @return the path, or empty: no disk can take it, or it is held by another process
     * @throws UncheckedIOException when the repository cannot be used
     */
    public Optional<String> createDirectory(String repository, String resource, boolean noDirtyMark) {
        return located(repository, resource, () -> createDirectoryNative(repository, resource, noDirtyMark));
    }

    /**
     * Deletes a resource, wherever it is.
     *
     * @param repository the root directory
     * @param resource the id
     * @return {@link #FOUND} when it is gone; {@link #DIRTY} when a disk is away on which a copy may be, or copies
     *     cannot be joined, and nothing was deleted; {@link #NOT_FOUND}; {@link #NOT_CREATED} when not all of it could
     *     be deleted; {@link #NOT_LOCKED}
     * @throws UncheckedIOException when the repository cannot be used
     */
    public int removeResource(String repository, String resource) {
        return succeeded(repository, resource, () -> removeResourceNative(repository, resource));
    }

    /**
     * What {@link #status} would be after {@link #getLocation}. The resource's times stay, but copies are joined as
     * there.
     *
     * @param repository the root directory
     * @param resource the id
     * @return {@link #FOUND}, {@link #DIRTY}, {@link #CONFLICT}, {@link #NOT_FOUND}, {@link #NOT_CREATED} when joining
     *     copies failed, or {@link #NOT_LOCKED}
     * @throws UncheckedIOException when the repository cannot be used
     */
    public int checkResourceStatus(String repository, String resource) {
        return succeeded(repository, resource, () -> checkResourceStatusNative(repository, resource));
    }

    /**
     * How full the disks are, and whether all are there.
     *
     * @param repository the root directory
     * @return the {@code STATUS_} bits that are set
     * @throws UncheckedIOException when the repository cannot be used
     */
    public int getRepositoryStatus(String repository) {
        return succeeded(repository, "", () -> getRepositoryStatusNative(repository));
    }

    /**
     * When a resource was last used and changed.
     *
     * @param repository the root directory
     * @param resource the id
     * @return the times, or empty when the resource is not found or the repository cannot be used; in the safe mode
     *     also when another process held the resource for 30 seconds
     */
    public Optional<Times> getTimes(String repository, String resource) {
        Objects.requireNonNull(repository, "repository");
        Objects.requireNonNull(resource, "resource");
        synchronized (LIBRARY) {
            return Optional.ofNullable(getTimePropertiesNative(repository, resource))
                    .map(times -> new Times(times[0], times[1]));
        }
    }

    /**
     * Sets when a resource was last used and changed; resources that were not used for long are the first to be moved.
     * Nothing happens when the resource is not found or the repository cannot be used, and in the safe mode when
     * another process held the resource for 30 seconds.
     *
     * @param repository the root directory
     * @param resource the id
     * @param accessed when it was last used; parts of a second are dropped
     * @param modified when it was last changed; parts of a second are dropped
     * @throws IllegalArgumentException for a time that a 32-bit count of seconds since 1970 cannot hold
     */
    public void setTimes(String repository, String resource, Instant accessed, Instant modified) {
        Objects.requireNonNull(repository, "repository");
        Objects.requireNonNull(resource, "resource");
        int[] times = {seconds(accessed), seconds(modified)};
        synchronized (LIBRARY) {
            setTimePropertiesNative(repository, resource, times);
        }
    }

    /**
     * The ids of all resources that are directories. One that is on several disks stands there for each.
     *
     * @param repository the root directory
     * @param sort sort them by their bytes
     * @return the ids, unmodifiable
     * @throws UncheckedIOException when the repository cannot be used
     */
    public List<String> listDirs(String repository, boolean sort) {
        return listed(repository, () -> listDirsNative(repository, sort));
    }

    /**
     * The ids of all resources that are not directories. One that is on several disks stands there for each.
     *
     * @param repository the root directory
     * @param sort sort them by their bytes
     * @return the ids, unmodifiable
     * @throws UncheckedIOException when the repository cannot be used
     */
    public List<String> listFiles(String repository, boolean sort) {
        return listed(repository, () -> listFilesNative(repository, sort));
    }

    // What they share

    private Optional<String> located(String repository, String resource, Supplier<String> call) {
        Objects.requireNonNull(repository, "repository");
        Objects.requireNonNull(resource, "resource");
        synchronized (LIBRARY) {
            status = FAILED; // stays when the native fails
            String path = call.get();
            if (status == FAILED) {
                throw failed(repository, resource);
            }
            if (path == null && status == FOUND) {
                status = NOT_LOCKED;
            }
            return Optional.ofNullable(path);
        }
    }

    private static int succeeded(String repository, String resource, IntSupplier call) {
        Objects.requireNonNull(repository, "repository");
        Objects.requireNonNull(resource, "resource");
        synchronized (LIBRARY) {
            int code = call.getAsInt();
            if (code == FAILED) {
                throw failed(repository, resource);
            }
            return code;
        }
    }

    private static List<String> listed(String repository, Supplier<String[]> call) {
        Objects.requireNonNull(repository, "repository");
        synchronized (LIBRARY) {
            String[] ids = call.get();
            if (ids == null) {
                throw failed(repository, "");
            }
            return List.of(ids);
        }
    }

    private static UncheckedIOException failed(String repository, String resource) {
        String what = resource.isEmpty() ? repository : repository + ", resource " + resource;
        return new UncheckedIOException(new IOException(what + ": the call failed; the system log tells why"));
    }

    private static int seconds(Instant time) {
        long seconds = time.getEpochSecond();
        if (seconds != (int) seconds) {
            throw new IllegalArgumentException(time + " is beyond a 32-bit count of seconds since 1970");
        }
        return (int) seconds;
    }

    // The natives. They throw nothing of their own: a call that fails in the library is logged and answers null or -1.
    // Nothing keeps two threads apart here; the caller does.

    /**
     * Sets a resource's times. Nothing tells whether that succeeded.
     *
     * @param repository the root directory
     * @param resource the id
     * @param times access and modification time, seconds since 1970; null sets both to now
     * @throws ArrayIndexOutOfBoundsException for fewer than two
     */
    public native void setTimePropertiesNative(String repository, String resource, int[] times);

    /**
     * Reads a resource's times.
     *
     * @param repository the root directory
     * @param resource the id
     * @return access and modification time, seconds since 1970, or null when it is not found or the call failed
     */
    public native int[] getTimePropertiesNative(String repository, String resource);

    /**
     * Lists the resources that are directories.
     *
     * @param repository the root directory
     * @param sort sort them by their bytes
     * @return the ids, or null when the call failed
     */
    public native String[] listDirsNative(String repository, boolean sort);

    /**
     * Lists the resources that are not directories.
     *
     * @param repository the root directory
     * @param sort sort them by their bytes
     * @return the ids, or null when the call failed
     */
    public native String[] listFilesNative(String repository, boolean sort);

    /**
     * Deletes a resource.
     *
     * @param repository the root directory
     * @param resource the id
     * @return as {@link #removeResource}, or {@link #FAILED}
     */
    public native int removeResourceNative(String repository, String resource);

    /**
     * Looks a resource up without touching its times.
     *
     * @param repository the root directory
     * @param resource the id
     * @return as {@link #checkResourceStatus}, or {@link #FAILED}
     */
    public native int checkResourceStatusNative(String repository, String resource);

    /**
     * Asks how full the disks are.
     *
     * @param repository the root directory
     * @return as {@link #getRepositoryStatus}, or {@link #FAILED}
     */
    public native int getRepositoryStatusNative(String repository);

    /**
     * Finds a resource and stores the code in {@link #status}.
     *
     * @param repository the root directory
     * @param resource the id
     * @return the path, or null
     */
    public native String getLocationNative(String repository, String resource);

    /**
     * Finds a place for a resource and stores the code in {@link #status}.
     *
     * @param repository the root directory
     * @param resource the id
     * @param noDirtyMark as for {@link #createLocation}
     * @return the path, or null
     */
    public native String createLocationNative(String repository, String resource, boolean noDirtyMark);

    /**
     * Finds or makes the directory of a resource and stores the code in {@link #status}.
     *
     * @param repository the root directory
     * @param resource the id
     * @param noDirtyMark as for {@link #createLocation}
     * @return the path, or null
     */
    public native String createDirectoryNative(String repository, String resource, boolean noDirtyMark);
}
