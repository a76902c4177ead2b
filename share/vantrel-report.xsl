<?xml version="1.0" encoding="UTF-8"?>
<!-- Turns an AdminObjects document into one HTML page: the number of
     objects of each kind, then a section per kind with a table per element.
     Every object's row is anchored by its identifier; every reference is a
     link to the row it names, and every row lists the objects that refer to
     it. Media have no element of their own: their identifiers stay text.
     XSLT 1.0 without extensions, so that xsltproc and browsers apply it;
     the page needs no script and prints as it shows. -->
<xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">
  <xsl:output method="html" encoding="UTF-8" indent="yes"
              doctype-system="about:legacy-compat"/>

  <!-- The attributes that name one object, and those that name several. -->
  <xsl:variable name="single"
      select="' BusinessDomain DataServer Host PackageDefinition ExternSite CapturedObject AppliedObject '"/>
  <xsl:variable name="lists" select="' VaultServers DataServers WholeDataDomains '"/>
  <!-- A table's title as its anchor: "Data servers" is "kind-data-servers". -->
  <xsl:variable name="upper" select="'ABCDEFGHIJKLMNOPQRSTUVWXYZ '"/>
  <xsl:variable name="lower" select="'abcdefghijklmnopqrstuvwxyz-'"/>

  <!-- The document shown, named in the heading; and, from vantrel-doc
       report, a place for its picture of servers and replication. -->
  <xsl:param name="document" select="''"/>
  <xsl:param name="picture" select="''"/>

  <xsl:key name="object" match="*[@Oid]" use="@Oid"/>
  <xsl:key name="referrer" use="@BusinessDomain | @DataServer | @Host | @PackageDefinition | @ExternSite | @CapturedObject | @AppliedObject"
           match="DATARDB | DATASERVER | SUBSCRIBINGTARGET | SUBSCRIPTION | VAULTSERVERCAPTURESTATUS | DATASERVERCAPTURESTATUS | VAULTSERVERAPPLYSTATUS | DATASERVERAPPLYSTATUS"/>

  <xsl:template match="/AdminObjects">
    <html lang="en">
      <head>
        <meta charset="UTF-8"/>
        <title>Administration configuration</title>
        <style>
          body { font: 14px/1.4 sans-serif; margin: 2em; color: #222; }
          h1 { font-size: 1.6em; } h2 { margin-top: 2em; border-bottom: 2px solid #888; }
          table { border-collapse: collapse; margin: 0.5em 0 1.5em; }
          th, td { border: 1px solid #bbb; padding: 0.2em 0.5em; text-align: left; vertical-align: top; }
          th { background: #eee; } tr:target { background: #ffd; }
          td.oid, a { font-family: monospace; }
          nav a { margin-right: 1em; }
          @media print { nav { display: none; } a { color: inherit; text-decoration: none; }
                         h2 { page-break-before: auto; } tr { page-break-inside: avoid; } }
        </style>
      </head>
      <body>
        <h1>Administration configuration</h1>
        <xsl:if test="$document != ''">
          <p>Document: <code><xsl:value-of select="$document"/></code></p>
        </xsl:if>
        <h2 id="summary">Summary</h2>
        <table>
          <tr><th>Kind</th><th>Objects</th></tr>
          <xsl:call-template name="count"><xsl:with-param name="label" select="'Projects'"/><xsl:with-param name="nodes" select="PROJECT"/></xsl:call-template>
          <xsl:call-template name="count"><xsl:with-param name="label" select="'Data domains'"/><xsl:with-param name="nodes" select="PROJECT/DATARDB"/></xsl:call-template>
          <xsl:call-template name="count"><xsl:with-param name="label" select="'Domains'"/><xsl:with-param name="nodes" select="DOMAIN"/></xsl:call-template>
          <xsl:call-template name="count"><xsl:with-param name="label" select="'Business domains'"/><xsl:with-param name="nodes" select="DOMAIN/BUSINESSDOMAIN"/></xsl:call-template>
          <xsl:call-template name="count"><xsl:with-param name="label" select="'Data servers'"/><xsl:with-param name="nodes" select="SERVER/DATASERVER"/></xsl:call-template>
          <xsl:call-template name="count"><xsl:with-param name="label" select="'Vault servers'"/><xsl:with-param name="nodes" select="SERVER/VAULTSERVER"/></xsl:call-template>
          <xsl:call-template name="count"><xsl:with-param name="label" select="'Hosts'"/><xsl:with-param name="nodes" select="HOST"/></xsl:call-template>
          <xsl:call-template name="count"><xsl:with-param name="label" select="'Subscribing targets'"/><xsl:with-param name="nodes" select="SUBSCRIBINGTARGET"/></xsl:call-template>
          <xsl:call-template name="count"><xsl:with-param name="label" select="'Capture statuses'"/><xsl:with-param name="nodes" select="SUBSCRIBINGTARGET/*"/></xsl:call-template>
          <xsl:call-template name="count"><xsl:with-param name="label" select="'Subscriptions'"/><xsl:with-param name="nodes" select="SUBSCRIPTION"/></xsl:call-template>
          <xsl:call-template name="count"><xsl:with-param name="label" select="'Apply statuses'"/><xsl:with-param name="nodes" select="SUBSCRIPTION/*"/></xsl:call-template>
          <xsl:call-template name="count"><xsl:with-param name="label" select="'Package definitions'"/><xsl:with-param name="nodes" select="PACKAGEDEFINITION"/></xsl:call-template>
          <xsl:call-template name="count"><xsl:with-param name="label" select="'Extern sites'"/><xsl:with-param name="nodes" select="EXTERNSITE"/></xsl:call-template>
          <xsl:call-template name="count"><xsl:with-param name="label" select="'Local site'"/><xsl:with-param name="nodes" select="LOCALSITE"/></xsl:call-template>
        </table>

        <xsl:if test="$picture != ''">
          <h2 id="picture">Servers and replication</h2>
          <div id="vantrel-picture"/>
        </xsl:if>

        <h2 id="projects">Projects</h2>
        <xsl:call-template name="table"><xsl:with-param name="title" select="'Projects'"/><xsl:with-param name="nodes" select="PROJECT"/><xsl:with-param name="columns" select="'Name Oid VaultServers DataServers '"/></xsl:call-template>
        <xsl:call-template name="table"><xsl:with-param name="title" select="'Data domains'"/><xsl:with-param name="nodes" select="PROJECT/DATARDB"/><xsl:with-param name="columns" select="'Name AliasName Oid OwnerDico BusinessDomain Driver DataServer '"/></xsl:call-template>

        <h2 id="domains">Domains</h2>
        <xsl:call-template name="table"><xsl:with-param name="title" select="'Domains'"/><xsl:with-param name="nodes" select="DOMAIN"/><xsl:with-param name="columns" select="'Name Visible Oid '"/></xsl:call-template>
        <xsl:call-template name="table"><xsl:with-param name="title" select="'Business domains'"/><xsl:with-param name="nodes" select="DOMAIN/BUSINESSDOMAIN"/><xsl:with-param name="columns" select="'Name Oid MetaDataName Editor CorvelFlag DataModeler '"/></xsl:call-template>

        <h2 id="servers">Servers and hosts</h2>
        <xsl:call-template name="table"><xsl:with-param name="title" select="'Data servers'"/><xsl:with-param name="nodes" select="SERVER/DATASERVER"/><xsl:with-param name="columns" select="'Name Oid Authentication DBMS ConnectionString Host '"/></xsl:call-template>
        <xsl:call-template name="table"><xsl:with-param name="title" select="'Vault servers'"/><xsl:with-param name="nodes" select="SERVER/VAULTSERVER"/><xsl:with-param name="columns" select="'Name Oid AliasName '"/></xsl:call-template>
        <xsl:call-template name="table"><xsl:with-param name="title" select="'Hosts'"/><xsl:with-param name="nodes" select="HOST"/><xsl:with-param name="columns" select="'Name Oid OSType OSVersion '"/></xsl:call-template>

        <h2 id="replication">Replication</h2>
        <xsl:call-template name="table"><xsl:with-param name="title" select="'Subscribing targets'"/><xsl:with-param name="nodes" select="SUBSCRIBINGTARGET"/><xsl:with-param name="columns" select="'Name Oid Media PackageDefinition ExternSite '"/></xsl:call-template>
        <xsl:call-template name="table"><xsl:with-param name="title" select="'Capture statuses'"/><xsl:with-param name="nodes" select="SUBSCRIBINGTARGET/*"/><xsl:with-param name="columns" select="'Oid LastSuccessfulDate CapturedObject '"/></xsl:call-template>
        <xsl:call-template name="table"><xsl:with-param name="title" select="'Subscriptions'"/><xsl:with-param name="nodes" select="SUBSCRIPTION"/><xsl:with-param name="columns" select="'Name Oid Media PackageDefinition ExternSite '"/></xsl:call-template>
        <xsl:call-template name="table"><xsl:with-param name="title" select="'Apply statuses'"/><xsl:with-param name="nodes" select="SUBSCRIPTION/*"/><xsl:with-param name="columns" select="'Oid LastSuccessfulDate AppliedObject '"/></xsl:call-template>
        <xsl:call-template name="table"><xsl:with-param name="title" select="'Package definitions'"/><xsl:with-param name="nodes" select="PACKAGEDEFINITION"/><xsl:with-param name="columns" select="'Name Oid WholeDataDomains '"/></xsl:call-template>

        <h2 id="sites">Sites</h2>
        <xsl:call-template name="table"><xsl:with-param name="title" select="'Extern sites'"/><xsl:with-param name="nodes" select="EXTERNSITE"/><xsl:with-param name="columns" select="'Name Oid '"/></xsl:call-template>
        <xsl:call-template name="table"><xsl:with-param name="title" select="'Local site'"/><xsl:with-param name="nodes" select="LOCALSITE"/><xsl:with-param name="columns" select="'Name Oid '"/></xsl:call-template>
      </body>
    </html>
  </xsl:template>

  <xsl:template name="count">
    <xsl:param name="label"/>
    <xsl:param name="nodes"/>
    <tr>
      <td>
        <xsl:choose>
          <xsl:when test="$nodes"><a href="#kind-{translate($label, $upper, $lower)}"><xsl:value-of select="$label"/></a></xsl:when>
          <xsl:otherwise><xsl:value-of select="$label"/></xsl:otherwise>
        </xsl:choose>
      </td>
      <td><xsl:value-of select="count($nodes)"/></td>
    </tr>
  </xsl:template>

  <!-- A table of nodes: the columns named in columns (each followed by a
       blank), the element for statuses, the owner for children, and the
       objects that refer to each row. -->
  <xsl:template name="table">
    <xsl:param name="title"/>
    <xsl:param name="nodes"/>
    <xsl:param name="columns"/>
    <xsl:if test="$nodes">
      <h3 id="kind-{translate($title, $upper, $lower)}"><xsl:value-of select="$title"/></h3>
      <table>
        <tr>
          <xsl:if test="$nodes[1]/../@Oid"><th>Of</th></xsl:if>
          <xsl:if test="$nodes[1]/parent::SUBSCRIBINGTARGET or $nodes[1]/parent::SUBSCRIPTION"><th>Element</th></xsl:if>
          <xsl:call-template name="heads"><xsl:with-param name="columns" select="$columns"/></xsl:call-template>
          <th>Referred to by</th>
        </tr>
        <xsl:for-each select="$nodes">
          <tr id="{@Oid}">
            <xsl:if test="../@Oid"><td><xsl:call-template name="link"><xsl:with-param name="oid" select="../@Oid"/></xsl:call-template></td></xsl:if>
            <xsl:if test="parent::SUBSCRIBINGTARGET or parent::SUBSCRIPTION"><td><xsl:value-of select="name()"/></td></xsl:if>
            <xsl:call-template name="cells"><xsl:with-param name="columns" select="$columns"/></xsl:call-template>
            <td><xsl:call-template name="referrers"/></td>
          </tr>
        </xsl:for-each>
      </table>
    </xsl:if>
  </xsl:template>

  <xsl:template name="heads">
    <xsl:param name="columns"/>
    <xsl:if test="$columns">
      <th><xsl:value-of select="substring-before($columns, ' ')"/></th>
      <xsl:call-template name="heads"><xsl:with-param name="columns" select="substring-after($columns, ' ')"/></xsl:call-template>
    </xsl:if>
  </xsl:template>

  <xsl:template name="cells">
    <xsl:param name="columns"/>
    <xsl:if test="$columns">
      <xsl:variable name="column" select="substring-before($columns, ' ')"/>
      <xsl:variable name="value" select="@*[name() = $column]"/>
      <xsl:choose>
        <xsl:when test="$column = 'Oid'"><td class="oid"><xsl:value-of select="$value"/></td></xsl:when>
        <xsl:when test="contains($single, concat(' ', $column, ' ')) or contains($lists, concat(' ', $column, ' '))">
          <td><xsl:call-template name="links"><xsl:with-param name="oids" select="normalize-space($value)"/></xsl:call-template></td>
        </xsl:when>
        <xsl:when test="$column = 'Media'"><td class="oid"><xsl:value-of select="$value"/></td></xsl:when>
        <xsl:otherwise><td><xsl:value-of select="$value"/></td></xsl:otherwise>
      </xsl:choose>
      <xsl:call-template name="cells"><xsl:with-param name="columns" select="substring-after($columns, ' ')"/></xsl:call-template>
    </xsl:if>
  </xsl:template>

  <!-- Links to each identifier of a blank-separated list. -->
  <xsl:template name="links">
    <xsl:param name="oids"/>
    <xsl:if test="$oids">
      <xsl:variable name="first">
        <xsl:choose>
          <xsl:when test="contains($oids, ' ')"><xsl:value-of select="substring-before($oids, ' ')"/></xsl:when>
          <xsl:otherwise><xsl:value-of select="$oids"/></xsl:otherwise>
        </xsl:choose>
      </xsl:variable>
      <xsl:call-template name="link"><xsl:with-param name="oid" select="$first"/></xsl:call-template>
      <xsl:if test="contains($oids, ' ')">
        <br/>
        <xsl:call-template name="links"><xsl:with-param name="oids" select="substring-after($oids, ' ')"/></xsl:call-template>
      </xsl:if>
    </xsl:if>
  </xsl:template>

  <!-- A link to the object of oid, shown with its name when it has one. -->
  <xsl:template name="link">
    <xsl:param name="oid"/>
    <xsl:variable name="target" select="key('object', $oid)"/>
    <a href="#{$oid}"><xsl:value-of select="$oid"/></a>
    <xsl:if test="$target/@Name"> (<xsl:value-of select="$target/@Name"/>)</xsl:if>
  </xsl:template>

  <!-- The objects that refer to the current one, by a single reference or
       from a list. -->
  <xsl:template name="referrers">
    <xsl:variable name="oid" select="@Oid"/>
    <xsl:variable name="padded" select="concat(' ', $oid, ' ')"/>
    <xsl:for-each select="key('referrer', $oid) | /AdminObjects/PROJECT[contains(concat(' ', @VaultServers, ' ', @DataServers), $padded)] | /AdminObjects/PACKAGEDEFINITION[contains(concat(' ', @WholeDataDomains), $padded)]">
      <xsl:if test="position() > 1"><br/></xsl:if>
      <xsl:value-of select="name()"/><xsl:text> </xsl:text>
      <xsl:call-template name="link"><xsl:with-param name="oid" select="@Oid"/></xsl:call-template>
    </xsl:for-each>
  </xsl:template>
</xsl:stylesheet>
