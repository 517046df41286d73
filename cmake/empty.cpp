// Placeholder for a folder with no sources yet.
