package corvanta.util;

/** A class of the same name whose field for the code is of another type than the natives look for. */
public class RepositoryHandler {
    static {
        System.loadLibrary("KTRepositoryHandler");
    }

    public long status;

    public native String getLocationNative(String repository, String resource);

    public native String createLocationNative(String repository, String resource, boolean noDirtyMark);

    public native String createDirectoryNative(String repository, String resource, boolean noDirtyMark);
}
