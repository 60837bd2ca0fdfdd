import corvanta.util.RepositoryHandler;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Instant;

/**
 * How a Java program uses a repository: it stores three documents, finds one again, lists them and removes one.
 *
 * <pre>java -cp corvanta-repositoryhandler.jar examples/Documents.java REPOSITORY</pre>
 *
 * <p>The environment variable {@code LOCK_VAR} names the directory of the lock files.
 */
public final class Documents {
    private final RepositoryHandler handler = new RepositoryHandler();
    private final String repository;

    private Documents(String repository) {
        this.repository = repository;
    }

    public static void main(String[] arguments) throws IOException {
        if (arguments.length != 1) {
            System.err.println("Usage: Documents REPOSITORY");
            System.exit(2);
        }
        try {
            new Documents(arguments[0]).show();
        } catch (UncheckedIOException failure) { // a listed disk without a directory, a lock file that cannot be made
            System.err.println(failure.getCause().getMessage());
            System.exit(1);
        }
    }

    private void show() throws IOException {
        store("contract-2011", "Delivery within 14 days.");
        store("invoice-2009", "Four disks: 396.00");
        store("letter-2010", "Dear customer");
        handler.setTimes(repository, "invoice-2009", Instant.parse("2009-03-31T12:00:00Z"), Instant.now());

        System.out.println("Stored: " + handler.listDirs(repository, true));
        System.out.println("The letter says: " + read("letter-2010"));
        handler.getTimes(repository, "invoice-2009")
                .ifPresent(times -> System.out.println("The invoice was last used at " + times.accessed()));

        int code = handler.removeResource(repository, "contract-2011");
        System.out.println(code == RepositoryHandler.FOUND ? "The contract is removed" : "Not removed, code " + code);
        System.out.println("Left: " + handler.listDirs(repository, true));
    }

    /** Each document is a directory. The library picks the disk; the file in it is ours to write. */
    private void store(String id, String text) throws IOException {
        String path = handler.createDirectory(repository, id, false)
                .orElseThrow(() -> new IOException("No place for " + id + ", code " + handler.status));
        Files.writeString(Path.of(path, "text"), text);
    }

    private String read(String id) throws IOException {
        String path = handler.getLocation(repository, id)
                .orElseThrow(() -> new IOException(id + " is not there, code " + handler.status));
        return Files.readString(Path.of(path, "text"));
    }
}
