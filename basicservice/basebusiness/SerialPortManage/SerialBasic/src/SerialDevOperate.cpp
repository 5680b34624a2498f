// placeholder: implemented by its issue
