import corvanta.util.RepositoryHandler;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.nio.channels.FileChannel;
import java.nio.ByteBuffer;
import java.time.Instant;
import java.util.HashMap;
import java.util.Map;
import java.util.Random;
import java.util.function.IntSupplier;
import java.util.stream.Collectors;
import java.util.stream.Stream;

/**
 * A virtual machine that contends for a repository: what {@code contender.cpp} does, and tells in its history, in Java.
 *
 * <pre>Contender REPOSITORY HISTORY WORKER WORKERS OPERATIONS SEED</pre>
 */
public final class Contender {
    private static final int OWN_NAMES = 24;
    private static final int SHARED_NAMES = 24;
    private static final long LONG_AGO = 1000000000L;
    private static final int NOT_LOCKED = -1;
    private static final int NOT_THERE = 99;

    private final RepositoryHandler handler = new RepositoryHandler();
    private final String repository;
    private final FileChannel history;
    private final int number;
    private final int count;
    private final long mostOperations;
    private final Random random;
    private final Map<String, Integer> generations = new HashMap<>(); // of what must be there
    private long operations;
    private int generationsMade;
    private String path; // of the last creation or look-up

    private Contender(String[] arguments) throws IOException {
        repository = arguments[0];
        Path file = Path.of(arguments[1]);
        number = Integer.parseInt(arguments[2]);
        count = Integer.parseInt(arguments[3]);
        mostOperations = Long.parseLong(arguments[4]);
        random = new Random(Long.parseLong(arguments[5]));
        boolean wasKilled = Files.exists(file);
        if (wasKilled) {
            Files.readAllLines(file).forEach(line -> recall(line.split(" ")));
            ++generationsMade; // one may have been begun
        }
        history = FileChannel.open(file, StandardOpenOption.CREATE, StandardOpenOption.APPEND);
        for (int i = 0; wasKilled && i < OWN_NAMES; ++i) {
            if (!generations.containsKey(ownName(number, i))) {
                unmake(ownName(number, i), true);
            }
        }
    }

    public static void main(String[] arguments) throws IOException {
        Contender contender = new Contender(arguments);
        while (!contender.isDone()) {
            contender.step();
        }
    }

    private boolean isDone() {
        return operations >= mostOperations;
    }

    private void step() throws IOException {
        if (random.nextInt(10) < 4) {
            workOnOwn(ownName(number, random.nextInt(OWN_NAMES)));
        } else {
            workOnShared("s" + random.nextInt(SHARED_NAMES));
        }
    }

    private void workOnOwn(String name) throws IOException {
        if (!generations.containsKey(name)) {
            make(name);
        } else if (random.nextInt(4) == 0) {
            unmake(name, false);
        } else {
            use(name);
        }
    }

    private void workOnShared(String shared) throws IOException {
        int drawn = random.nextInt(8);
        if (drawn == 0) {
            remove(shared);
            return;
        }
        if (drawn < 3) {
            create(shared);
        } else if (drawn == 3) {
            operate("gettimes", shared, () -> handler.getTimes(repository, shared).isPresent() ? 1 : 0);
        } else {
            find(drawn == 4 ? ownName(random.nextInt(count), random.nextInt(OWN_NAMES)) : shared);
        }
        letGo(shared);
    }

    private void make(String name) throws IOException {
        int status;
        do {
            status = create(name);
        } while (status == NOT_THERE); // the emptied directory above it was removed meanwhile
        if (status == NOT_LOCKED) {
            return;
        }
        if (status != RepositoryHandler.FOUND) {
            complain(name, "was not created: " + status);
        } else if (!treeOf(path).isEmpty()) {
            complain(name, "was removed or never made, and has contents");
        } else {
            writeContent(name, ++generationsMade);
            generations.put(name, generationsMade);
            write("M " + name + " " + generationsMade);
            letGo(name);
        }
    }

    /** Tries until the outcome is known: what was perhaps removed is not made again. */
    private void unmake(String name, boolean mayBeAbsent) {
        generations.remove(name);
        int status;
        do {
            status = remove(name);
        } while (isUnknown(status) && !isDone());
        boolean isGone = status == RepositoryHandler.FOUND || mayBeAbsent && status == RepositoryHandler.NOT_FOUND;
        if (!isGone && !isUnknown(status)) {
            complain(name, "was not removed: " + status);
        }
    }

    private void use(String name) throws IOException {
        int status = find(name);
        if (status == NOT_LOCKED) {
            return;
        }
        if (status != RepositoryHandler.FOUND) {
            complain(name, "was not found: " + status);
            return;
        }
        if (!treeOf(path).equals(contentOf(name, generations.get(name)))) {
            complain(name, "is not what it was");
        }
        letGo(name);
    }

    private int create(String name) {
        return operate("create", name, () -> {
            path = handler.createDirectory(repository, name, false).orElse(null);
            return path != null && !Files.isDirectory(Path.of(path)) ? NOT_THERE : status();
        });
    }

    private int find(String name) {
        return operate("find", name, () -> {
            path = handler.getLocation(repository, name).orElse(null);
            return status();
        });
    }

    private int remove(String name) {
        return operate("remove", name, () -> handler.removeResource(repository, name));
    }

    /** Old enough to be moved: whoever calls this is done with the resource. */
    private void letGo(String name) {
        Instant old = Instant.ofEpochSecond(LONG_AGO + random.nextInt(1000));
        operate("settimes", name, () -> {
            handler.setTimes(repository, name, old, Instant.ofEpochSecond(LONG_AGO));
            return 0; // nothing tells
        });
    }

    private static boolean isUnknown(int removal) {
        return removal == RepositoryHandler.NOT_LOCKED || removal == RepositoryHandler.DIRTY;
    }

    private int status() {
        return handler.status == RepositoryHandler.NOT_LOCKED ? NOT_LOCKED : handler.status;
    }

    private int operate(String operation, String name, IntSupplier call) {
        ++operations;
        write("B " + System.nanoTime() + " " + operation + " " + name);
        int result = call.getAsInt();
        write("E " + System.nanoTime() + " " + result);
        return result;
    }

    private void complain(String name, String text) {
        write("V " + name + " " + text);
    }

    private void write(String line) {
        try {
            history.write(ByteBuffer.wrap((line + "\n").getBytes(StandardCharsets.UTF_8)));
        } catch (IOException failure) {
            throw new java.io.UncheckedIOException(failure);
        }
    }

    private void recall(String[] words) {
        if (words[0].equals("B") && words.length == 4 && words[2].equals("remove")) {
            generations.remove(words[3]);
        }
        if (words[0].equals("M") && words.length == 3) {
            generations.put(words[1], Integer.valueOf(words[2]));
            generationsMade = Math.max(generationsMade, Integer.parseInt(words[2]));
        }
    }

    private static String ownName(int worker, int i) {
        return "w" + worker + "r" + i;
    }

    /** As {@code tests/support/content.cpp} has it. */
    private static Map<String, String> contentOf(String name, int generation) {
        String mark = name + "." + generation + "\n";
        StringBuilder longer = new StringBuilder();
        while (longer.length() < 3000) {
            longer.append(mark);
        }
        return Map.of("head", mark, "body", longer.toString(), "sub/part", "part of " + mark);
    }

    private void writeContent(String name, int generation) throws IOException {
        Files.createDirectory(Path.of(path, "sub"));
        for (Map.Entry<String, String> file : contentOf(name, generation).entrySet()) {
            Files.writeString(Path.of(path, file.getKey()), file.getValue());
        }
    }

    private static Map<String, String> treeOf(String directory) throws IOException {
        Path top = Path.of(directory);
        Map<String, String> tree = new HashMap<>();
        try (Stream<Path> files = Files.walk(top)) {
            for (Path file : files.filter(Files::isRegularFile).collect(Collectors.toList())) {
                tree.put(top.relativize(file).toString(), Files.readString(file));
            }
        }
        return tree;
    }
}
