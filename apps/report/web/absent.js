// Stands for packages of the viewer that these pages have no use for: Zarr volumes and their codecs.
export {}
