import corvanta.util.RepositoryHandler;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;

/** As consumer.cpp, in Java, run from its source: finds each resource, or makes it, and prints "ID PATH". */
class Consumer {
    public static void main(String[] arguments) {
        RepositoryHandler handler = new RepositoryHandler();
        for (String id : List.of(arguments).subList(1, arguments.length)) {
            String path = handler.createDirectory(arguments[0], id, false).orElseThrow();
            if (!Files.isDirectory(Path.of(path)) || !handler.listDirs(arguments[0], true).contains(id)) {
                throw new IllegalStateException(id + " is not at " + path);
            }
            System.out.println(id + " " + path);
        }
    }
}
