package corvanta.util;

/** A class of the same name without the field that the natives store their code in. */
public class RepositoryHandler {
    static {
        System.loadLibrary("KTRepositoryHandler");
    }

    public native String getLocationNative(String repository, String resource);

    public native String createLocationNative(String repository, String resource, boolean noDirtyMark);

    public native String createDirectoryNative(String repository, String resource, boolean noDirtyMark);
}
